// The SATA PHY test: ports send a built-in pattern and may watch it come back.
#pragma once

#include <cstdint>

struct QFU_ADAPTER;

/// How the test is used; printed when help is asked for together with it.
extern const char QFU_PHY_USAGE[];

/// The pattern that is sent when none is named: PRBS7.
inline constexpr std::uint8_t QFU_PHY_DEFAULT_PATTERN = 9;

/// What `qfu_time_seconds` returns when the clock cannot be read.
inline constexpr std::uint32_t QFU_TIME_UNKNOWN = 0;

/// One port's test at one link rate.
struct QFU_PHY_RUN {
    std::uint8_t port;
    std::uint8_t rate;      ///< link rate index: 0 is 1.5 Gb/s, 1 is 3 Gb/s, 2 is 6 Gb/s
    std::uint8_t pattern;   ///< pattern code
    std::uint16_t duration; ///< of the monitor in seconds; 0: until a key is pressed
    bool loopback;          ///< the pattern is watched; else it is left running
    bool stop_on_error;     ///< the monitor ends with the first failure
};

/// Runs the PHY test that the request names on one adapter: on all ports at all rates, on one port
/// or all of them at one rate, or on one port at all rates. Prints a line for each run that was
/// watched.
/// @returns 0 when the usage was printed, nothing ran or every run passed, 1 when a watched run
///          failed, else the last run's result
std::uint8_t doPhyTest(QFU_ADAPTER& adapter);

/// Brings one port up at the rate, lets it send the pattern and, with loopback, watches pattern
/// checker and counters until the duration is over, a key is pressed or, when asked for, the first
/// failure. The pattern is still sent when this returns.
/// A clock that cannot be read stands still; the monitor then gives up after the cycles that the
/// duration should have had.
/// @returns 0 when the run passed or had nothing to watch; 1 when it failed or the adapter has no
///          PHY test
std::uint8_t doPhyTestPort(QFU_ADAPTER& adapter, const QFU_PHY_RUN& run);

/// Seconds from the start of 1970 to what the wall clock shows, or QFU_TIME_UNKNOWN.
std::uint32_t qfu_time_seconds();
