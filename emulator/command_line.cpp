#include "command_line.h"

#include "support/nearest_word.h"
#include "support/output_file.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <utility>

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

/// Help whose first lines show what stands behind "--", too.
class Formatter : public CLI::Formatter {
  public:
    explicit Formatter(std::string usage) : usage_(std::move(usage)) {}
    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
        return usage_ + "\n";
    }

  private:
    std::string usage_;
};

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

void set_usage(CLI::App& app, std::string usage) {
    app.formatter(std::make_shared<Formatter>(std::move(usage)));
}

CommandLine::CommandLine(int argc, const char* const* argv) {
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    const auto separator = std::ranges::find(words, "--");
    own.assign(words.begin(), separator);
    if (separator != words.end()) {
        behind.assign(separator + 1, words.end());
    }
}

std::optional<int> parse(CLI::App& app, const CommandLine& line, std::string_view hint) {
    try {
        // The parser takes the words from the end.
        app.parse(std::vector<std::string>(line.own.rbegin(), line.own.rend()));
        return std::nullopt;
    } catch (const CLI::Success& help) {
        app.exit(help);
        support::finish_standard_output();
        return 0;
    } catch (const CLI::ParseError& error) {
        std::cerr << app.get_name() << ": " << error.what() << '\n';
    }
    std::vector<std::string_view> commands;
    for (const CLI::App* command : app.get_subcommands({})) {
        commands.push_back(command->get_name());
    }
    const auto extra = app.remaining();
    const std::string_view meant =
        extra.empty() ? "" : support::nearest_word(extra.front(), commands);
    if (!meant.empty()) {
        std::cerr << "Did you mean \"" << meant << "\"?\n";
    } else if (!extra.empty()) {
        std::cerr << "What is to be run stands behind \"--\": " << hint << '\n';
    }
    std::cerr << '"' << app.get_name() << " --help\" tells more.\n";
    return kCannotRun;
}

} // namespace emulator
