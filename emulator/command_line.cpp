#include "command_line.h"

#include "observe/bus_trace.h"
#include "support/arguments.h"
#include "support/nearest_word.h"
#include "support/output_file.h"

#include <algorithm>
#include <iostream>

namespace emulator {
namespace {

std::string is_time(const std::string& text) {
    constexpr double kMost = 1e9;
    std::size_t used = 0;
    double seconds = -1;
    try {
        seconds = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    return used != 0 && used == text.size() && seconds >= 0 && seconds <= kMost
               ? ""
               : '"' + text + "\" is no time; allowed: seconds since the start, such as 0.25";
}

} // namespace

void add_trace_options(const support::Arguments& arguments, TraceOptions& options) {
    const support::Option trace = arguments.option(
        "--trace", options.file,
        "VCD file that receives the signals of SPI chips, for PulseView and GTKWave; "
        "registers and "
        "parallel chips go to a second file, x.registers.vcd beside x.vcd");
    arguments
        .option("--trace-from", options.from_seconds,
                "trace from this time on, in seconds since the start, as in --log")
        .check(is_time)
        .needs(trace);
    arguments.option("--trace-to", options.to_seconds, "trace up to this time")
        .check(is_time)
        .needs(trace);
}

CommandLine::CommandLine(int argc, const char* const* argv) {
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    const auto separator = std::ranges::find(words, "--");
    own.assign(words.begin(), separator);
    if (separator != words.end()) {
        after_dashes.assign(separator + 1, words.end());
    }
}

std::optional<int> read_command_line(const support::Arguments& arguments, const CommandLine& line,
                                     std::string_view hint) {
    std::vector<std::string> extra;
    try {
        if (arguments.read(line.own)) {
            return std::nullopt;
        }
        support::finish_standard_output();
        return 0;
    } catch (const support::UsageError& error) {
        std::cerr << arguments.tool() << ": " << error.what() << '\n';
        extra = error.extra();
    }
    const std::vector<std::string> commands = arguments.commands();
    const std::string_view meant =
        extra.empty() ? ""
                      : support::nearest_word(extra.front(), std::vector<std::string_view>(
                                                                 commands.begin(), commands.end()));
    if (!meant.empty()) {
        std::cerr << "Did you mean \"" << meant << "\"?\n";
    } else if (!extra.empty()) {
        std::cerr << "What is to be run stands behind \"--\": " << hint << '\n';
    }
    std::cerr << '"' << arguments.tool() << " --help\" tells more.\n";
    return kCannotRun;
}

} // namespace emulator
