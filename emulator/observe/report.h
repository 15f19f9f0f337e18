// What the emulator's programs tell about the hardware.
#pragma once

#include "hardware/clock.h"
#include "hardware/journal.h"
#include "support/output_file.h"

#include <filesystem>
#include <optional>
#include <span>
#include <vector>

namespace emulator {

/// Writes the cycles on the flash bus and the accesses to PHY test registers to a file, a line
/// each behind the time since the start, for as long as it lives.
class CycleLog {
  public:
    /// @param file    nothing is logged when it is empty
    /// @param inputs  files that the log must not replace
    /// @throws support::InputError when the file is refused or cannot be written
    CycleLog(const std::filesystem::path& file, std::span<const std::filesystem::path> inputs,
             Journal& journal, const Clock& clock);
    CycleLog(const CycleLog&) = delete;
    CycleLog& operator=(const CycleLog&) = delete;
    ~CycleLog();

    /// Ends the log. @throws support::InputError when not all of it was written
    void finish();

  private:
    std::optional<support::OutputFile> file_;
    Journal* journal_;
};

/// Lists misuse on standard error, each line behind the program's name: the first few, and how many
/// more there were.
void print_misuse(const char* program, const Journal& journal);

/// Names on standard error the lines of a machine file whose faults changed nothing.
void print_idle_faults(const char* program, const std::filesystem::path& machine,
                       std::vector<std::size_t> lines);

} // namespace emulator
