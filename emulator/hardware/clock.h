// The time that busy hardware goes by.
#pragma once

#include <chrono>
#include <cstdint>

namespace emulator {

/// Nanoseconds since some start.
class Clock {
  public:
    virtual ~Clock() = default;
    virtual std::uint64_t now_ns() const = 0;
};

/// Time that passes only when somebody waits, so that a wait of 20 seconds costs microseconds.
class VirtualClock final : public Clock {
  public:
    std::uint64_t now_ns() const override { return now_; }
    void advance_us(std::uint64_t microseconds) { now_ += microseconds * 1000; }

  private:
    std::uint64_t now_ = 0;
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
