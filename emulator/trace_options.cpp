#include "trace_options.h"

#include <CLI/CLI.hpp>

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

void TraceOptions::add_to(CLI::App& app) {
    CLI::Option* trace = app.add_option(
        "--trace", file,
        "VCD file that receives the signals of SPI chips, for PulseView and GTKWave; registers and "
        "parallel chips go to a second file, x.registers.vcd beside x.vcd");
    app.add_option("--trace-from", from_seconds,
                   "trace from this time on, in seconds since the start, as in --log")
        ->check(is_time)
        ->needs(trace);
    app.add_option("--trace-to", to_seconds, "trace up to this time")->check(is_time)->needs(trace);
}

} // namespace emulator
