#include "command_line.h"

#include <algorithm>

namespace emulator {

void add_trace_options(CLI::App& app, TraceOptions& options) {
    const CLI::Range seconds(0.0, 1e9);
    CLI::Option* trace = app.add_option(
        "--trace", options.file,
        "VCD file that receives the signals of SPI chips, for PulseView and GTKWave; registers and "
        "parallel chips go to a second file, x.registers.vcd beside x.vcd");
    app.add_option("--trace-from", options.from_seconds,
                   "trace from this time on, in seconds since the start, as in --log")
        ->check(seconds)
        ->needs(trace);
    app.add_option("--trace-to", options.to_seconds, "trace up to this time")
        ->check(seconds)
        ->needs(trace);
}

CommandLine::CommandLine(int argc, const char* const* argv) {
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    const auto separator = std::ranges::find(words, "--");
    own.assign(words.begin(), separator);
    if (separator != words.end()) {
        after_dashes.assign(separator + 1, words.end());
    }
}

} // namespace emulator
