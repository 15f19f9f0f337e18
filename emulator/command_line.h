// What the emulator's programs have in common on their command lines.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace support {
class Arguments;
} // namespace support

namespace emulator {

/// A command line: the program's own words and, after "--", the words of what it runs.
struct CommandLine {
    std::vector<std::string> own;
    std::vector<std::string> after_dashes;

    CommandLine(int argc, const char* const* argv);
};

struct TraceOptions;

/// Adds --trace, --trace-from and --trace-to.
void add_trace_options(const support::Arguments& arguments, TraceOptions& options);

/// Exit status of a program that cannot do what it was asked for.
inline constexpr int kCannotRun = 2;

/// Reads a program's own words.
/// @param hint  a right command line, shown when there are words that belong after "--"
/// @returns the exit status when the program has to end: after help, or after a usage error that
///          was printed
std::optional<int> read_command_line(const support::Arguments& arguments, const CommandLine& line,
                                     std::string_view hint);

} // namespace emulator
