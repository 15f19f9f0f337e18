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
    /// Starts again with "machine", "machine FILE" or "machine NAME [PART]".
    void start(const std::vector<std::string>& words, std::size_t line);

    /// Takes a line whose first word is adapter, adapters, spi, nor, phy, fault or time.
    /// @returns false for any other line
    bool take(const std::vector<std::string>& words, std::size_t line);

    /// @throws support::InputError when the lines describe no machine
    emulator::MachineDescription describe() const;

    /// The session's line from a line of the description.
    std::size_t line_of(std::size_t description_line) const;

    /// True when the lines name a machine file.
    bool is_file() const { return !file_.empty(); }

  private:
    void add(const std::string& toml, std::size_t line);

    std::string file_;
    std::string time_; ///< busy times; they come before all tables
    std::string text_;
    std::vector<std::size_t> lines_; ///< of the session, by line of `text_`
    int next_slot_ = 2;
};

} // namespace session
