// The file of a job: settings, and command lines that run one after another.
#pragma once

#include "request.h"

#include <array>

namespace flash {

/// What a file of a job has at most.
inline constexpr std::size_t JOB_FILE_SIZE = 0x10000;
inline constexpr std::size_t JOB_LINES = 64;

/// What happens when a job has ended.
enum class AtEnd : std::uint8_t { PROMPT, WAIT, RESET, POWER_OFF };

/// A line of the file.
struct JobLine {
    std::size_t number; ///< counted from 1
    std::string_view text;
};

/// What a file says. It refers to the file's text.
struct JobFile {
    std::string_view name = "job";
    bool goes_on; ///< with other adapters after one that failed
    AtEnd at_end;
    std::size_t count;
    std::array<JobLine, JOB_LINES> lines; ///< the first `count` are commands
};

/// What stands for {serial}, {uuid} and {place} in file names; empty when it is not known.
using Names = std::array<std::string_view, 3>;

/// Reads a file's text and checks each line.
/// @param file     as messages call it
/// @param request  memory for one line
/// @returns refused for what is not allowed, with the line's number
Outcome parse_job(Part file, std::string_view text, JobFile& job, Request& request);

/// Reads a command line of a checked file.
Outcome parse_line(const JobLine& line, Request& request);

/// True for a text of 1 to 64 letters, digits, ".", "_" and "-".
bool is_plain(std::string_view text);

/// Puts names in the places of a file name.
/// @returns false when one is not known, and when the result is no plain name
bool expand(const platform::FileName& from, const Names& names, platform::FileName& to);

} // namespace flash
