// Where a long run is, for a person at a terminal.
#pragma once

#include "uefi/firmware.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace emulator {

/// A line of its own on standard error, below what the program prints. It is there only while the
/// program moves bytes, and only when that takes longer than a moment. Whoever prints wipes it
/// before, and has it drawn again behind.
class ProgressLine {
  public:
    /// @param arguments  the program's, without its name; they say how much there is to do
    ProgressLine(Firmware& firmware, std::vector<std::string> arguments);
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    ~ProgressLine() { wipe(); }

    void wipe();
    /// Draws the line if bytes were moved since the last time: a program that says something else
    /// has the terminal for itself.
    void draw();

  private:
    using Time = std::chrono::steady_clock::time_point;

    const std::string* value_of(const char* option) const;
    void count();
    std::string text(Time now) const;

    Firmware* firmware_;
    std::vector<std::string> arguments_;
    bool has_place_;
    bool only_erases_;
    bool shown_ = false;
    bool moves_ = false; ///< between flash and file; before that it erases
    std::uint64_t done_ = 0;
    std::uint64_t total_ = 0; ///< 0: nobody knows
    Time first_;              ///< when bytes were first seen to be moved
    Time since_;              ///< the same, of what moves now
    std::uint64_t done_then_ = 0;
    Time stale_;
    std::string text_;
};

} // namespace emulator
