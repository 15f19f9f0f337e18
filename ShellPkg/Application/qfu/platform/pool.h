// Memory from the firmware's pool, with an owner.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

namespace platform {

/// Takes `bytes` bytes of boot-services data and fills them with zero.
/// @returns the memory, or null when the pool is empty
void* pool_take(std::size_t bytes);

/// Gives memory of `pool_take` back; null is allowed.
void pool_give_back(void* memory);

/// Owns `count` objects in the firmware's pool, zero-filled before they are constructed. Tests
/// false when the pool was empty.
template <class T>
class Pool {
  public:
    constexpr Pool() = default;
    explicit Pool(std::size_t count) : first_(nullptr), count_(count) {
        if (count > SIZE_MAX / sizeof(T)) {
            return;
        }
        first_ = static_cast<T*>(pool_take(count * sizeof(T)));
        if constexpr (!std::is_trivially_default_constructible_v<T>) {
            for (std::size_t i = 0; first_ != nullptr && i < count; ++i) {
                new (first_ + i) T();
            }
        }
    }
    Pool(Pool&& other) noexcept
        : first_(std::exchange(other.first_, nullptr)), count_(std::exchange(other.count_, 0)) {}
    Pool& operator=(Pool&& other) noexcept {
        std::swap(first_, other.first_);
        std::swap(count_, other.count_);
        return *this;
    }
    ~Pool() {
        if constexpr (!std::is_trivially_destructible_v<T>) {
            for (std::size_t i = 0; first_ != nullptr && i < count_; ++i) {
                first_[i].~T();
            }
        }
        pool_give_back(first_);
    }

    explicit operator bool() const { return first_ != nullptr; }
    T* get() const { return first_; }
    T* operator->() const { return first_; }
    T& operator*() const { return *first_; }
    T& operator[](std::size_t i) const { return first_[i]; }

  private:
    T* first_ = nullptr;
    std::size_t count_ = 0;
};

} // namespace platform
