// What the emulator's programs tell about the hardware.
#pragma once

#include "hardware/journal.h"

#include <filesystem>
#include <fstream>

namespace emulator {

/// Writes the cycles on the flash bus and the accesses to PHY test registers to a file, a line
/// each, for as long as it lives.
class CycleLog {
  public:
    /// @param file  nothing is logged when it is empty
    /// @throws support::InputError when the file cannot be written
    CycleLog(const std::filesystem::path& file, Journal& journal);

  private:
    std::ofstream file_;
};

/// Lists misuse on standard error, each line behind the program's name.
void print_misuse(const char* program, const Journal& journal);

} // namespace emulator
