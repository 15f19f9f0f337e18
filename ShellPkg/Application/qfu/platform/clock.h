// Pauses and the time of day.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

/// Keeps the processor busy for at least `microseconds`.
void stall(std::size_t microseconds);

/// Lets pauses last this long together from now on. The program's waits end as failures once that
/// is spent. Without a limit they end at their own counts.
void limit_pauses(std::uint64_t microseconds);

/// True when the limit of `limit_pauses` is spent.
bool pauses_spent();

/// What the wall clock shows.
struct WallTime {
    std::uint16_t year;
    std::uint8_t month; ///< 1 to 12
    std::uint8_t day;   ///< 1 to 31
    std::uint8_t hour;
    std::uint8_t minute;
    std::uint8_t second;
};

/// Reads the wall clock. @returns false when the firmware cannot; `out` is then as it was
bool wall_time(WallTime& out);

} // namespace platform
