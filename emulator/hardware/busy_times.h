// How long flash is busy.
#pragma once

#include <algorithm>
#include <cstdint>

namespace emulator {

/// How long a chip of ordinary speed is busy.
struct BusyTimes {
    std::uint64_t program_us = 10; ///< one program command
    std::uint64_t write_status_us = 5'000;
    std::uint64_t erase_us_per_4k = 3'000; ///< and never less than ten of these for one erase

    /// One erase of so many bytes.
    std::uint64_t erase_us(std::uint32_t bytes) const {
        return erase_us_per_4k * std::max<std::uint64_t>(10, bytes / 4096);
    }
};
inline constexpr BusyTimes kNeverBusy{0, 0, 0};
/// The longest times: ten times the typical ones. The factor is an assumption about parts of this
/// sort, no figure of any one data sheet.
inline constexpr BusyTimes kLongestBusy{100, 50'000, 30'000};

} // namespace emulator
