// The time that busy hardware goes by.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

namespace emulator {

/// Nanoseconds since some start.
class Clock {
  public:
    virtual ~Clock() = default;
    virtual std::uint64_t now_ns() const = 0;
};

/// What time goes by with.
enum class TimeUse : std::uint8_t { kPause, kRead, kWrite };

/// How long a register access takes. A read waits for its answer; a write is posted. These are
/// typical figures of PCI Express, not measured on an adapter.
struct AccessTimes {
    std::uint64_t read_ns = 1000;
    std::uint64_t write_ns = 100;
};

/// Time that passes only when somebody waits, so that a wait of 20 seconds costs microseconds.
class VirtualClock final : public Clock {
  public:
    std::uint64_t now_ns() const override { return now_; }
    void advance_us(std::uint64_t microseconds) { advance(microseconds * 1000, TimeUse::kPause); }
    void advance(std::uint64_t nanoseconds, TimeUse use) {
        if (listener_) {
            listener_(nanoseconds, use);
        }
        now_ += nanoseconds;
    }

    /// Calls the listener before time passes: how much, and with what.
    void listen(std::function<void(std::uint64_t nanoseconds, TimeUse use)> listener) {
        listener_ = std::move(listener);
    }

  private:
    std::uint64_t now_ = 0;
    std::function<void(std::uint64_t, TimeUse)> listener_;
};

/// The host's time, for hardware whose driver runs in a guest and waits for real.
class SteadyClock final : public Clock {
  public:
    std::uint64_t now_ns() const override {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    }
};

} // namespace emulator
