// Where a run's time would go on hardware.
#pragma once

#include "hardware/clock.h"
#include "hardware/machine.h"

#include <cstdint>
#include <string>

namespace emulator {

/// Adds up virtual time for as long as it lives. Time that passes while a chip is busy counts as
/// that, whatever the program does meanwhile.
class TimeAccount {
  public:
    TimeAccount(const Machine& machine, VirtualClock& clock);
    TimeAccount(const TimeAccount&) = delete;
    TimeAccount& operator=(const TimeAccount&) = delete;
    ~TimeAccount();

    /// One line of text without its end, or a JSON object.
    std::string text() const;
    std::string json() const;

  private:
    void pass(std::uint64_t nanoseconds, TimeUse use);
    std::uint64_t total_ns() const { return busy_ns_ + pause_ns_ + access_ns_; }

    const Machine* machine_;
    VirtualClock* clock_;
    std::uint64_t busy_ns_ = 0;
    std::uint64_t pause_ns_ = 0;
    std::uint64_t access_ns_ = 0;
    std::uint64_t reads_ = 0;
    std::uint64_t writes_ = 0;
};

} // namespace emulator
