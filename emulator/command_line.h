// What the emulator's programs have in common on their command lines.
#pragma once

#include "observe/bus_trace.h"
#include "support/arguments.h"

namespace emulator {

/// A command line: the program's own words and, after "--", the words of what it runs.
struct CommandLine {
    std::vector<std::string> own;
    std::vector<std::string> after_dashes;

    CommandLine(int argc, const char* const* argv);
};

/// Adds --trace, --trace-from and --trace-to.
void add_trace_options(CLI::App& app, TraceOptions& options);

} // namespace emulator
