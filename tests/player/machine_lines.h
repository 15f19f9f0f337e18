// The lines of a session that describe its machine.
#pragma once

#include "machine/machine_file.h"

#include <string>
#include <vector>

namespace session {

/// Splits a line at spaces; text in double quotes is one word.
std::vector<std::string> split(const std::string& line);

/// Collects the lines that describe a machine, as a machine file.
class MachineLines {
  public:
    /// Takes a line whose first word is machine, adapter, adapters, spi, nor, phy, fault or time.
    /// "machine", "machine FILE" and "machine NAME [PART]" start again.
    /// @throws support::InputError for any other line
    void take(const std::string& line);

    /// @throws support::InputError when the lines describe no machine
    emulator::MachineDescription describe() const;

    /// The session's line from a line of the description; empty for one of a machine file.
    const std::string& line_of(std::size_t description_line) const {
        return lines_.at(description_line - 1);
    }

  private:
    void start(const std::vector<std::string>& words);
    void add_table(const std::vector<std::string>& words);

    emulator::BusyTimes times_;
    std::string toml_;
    std::vector<std::string> lines_; ///< of the session, by line of `toml_`
    int next_slot_ = 2;
};

} // namespace session
