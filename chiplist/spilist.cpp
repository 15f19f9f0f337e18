// The chip list compiler.
#include "check.h"
#include "image.h"
#include "source.h"
#include "support/input_error.h"

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>

namespace {

using namespace chiplist;

constexpr int kFound = 1;
constexpr int kUsage = 2;

int build(const std::string& source, const std::string& output) {
    const ChipList list = read_source(source);
    const std::vector<Finding> findings = check(list);
    for (const Finding& finding : findings) {
        std::cerr << source << ": " << finding.entry << ": " << finding.field << ": "
                  << finding.what << '\n';
    }
    if (!findings.empty()) {
        return kFound;
    }
    const std::vector<std::uint8_t> bytes = encode(list);
    std::ofstream file(output, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        throw support::InputError(output + ": cannot be written");
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) try {
    CLI::App app{"Compiles chip lists for qfu."};
    app.require_subcommand(1);
    std::string source;
    std::string output = "spilist.bin";
    CLI::App* build_command = app.add_subcommand("build", "make a list file from its source");
    build_command->add_option("source", source, "source (TOML)")->required();
    build_command->add_option("-o,--output", output, "list file")->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    }
    return build(source, output);
} catch (const std::exception& error) {
    std::cerr << "spilist: " << error.what() << '\n';
    return kUsage;
}
