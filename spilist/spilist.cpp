// The chip list tool.
#include "check.h"
#include "image.h"
#include "match.h"
#include "show.h"
#include "source.h"
#include "support/arguments.h"
#include "support/input_error.h"
#include "support/output_file.h"
#include "support/version.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>

namespace {

using namespace spilist;

constexpr int kFound = 1;

/// Bytes of a file that are read: all of a list and enough to see that there are more.
constexpr std::size_t kMostBytes = 4096;

std::vector<std::uint8_t> read_bytes(const std::string& name) {
    if (std::filesystem::is_directory(name)) {
        throw support::InputError(name + ": is a folder; it must be a chip list");
    }
    std::ifstream file(name, std::ios::binary);
    std::vector<std::uint8_t> bytes(kMostBytes);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.is_open() || file.bad()) {
        throw support::InputError(name + ": cannot be read: " + std::strerror(errno));
    }
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    return bytes;
}

/// A source when the name ends in ".toml", else a list file.
ChipList read_list(const std::string& name) {
    if (name.ends_with(".toml")) {
        return read_source(name);
    }
    return decode(read_bytes(name));
}

void print(const std::string& file, const std::vector<Finding>& findings, std::ostream& out) {
    for (const Finding& finding : findings) {
        out << file << ':';
        if (finding.line != 0) {
            out << finding.line << ':';
        }
        out << ' ' << finding.entry << ": " << finding.field << ": " << finding.what << '\n';
    }
}

/// What comes of the findings.
const char* verdict(const std::vector<Finding>& findings) {
    if (findings.empty()) {
        return "nothing is wrong";
    }
    return is_rejected(findings) ? "the program would reject the list"
                                 : "the program would load the list but misuse it";
}

/// Warns of a list whose contents are about to be printed. @returns what is wrong with it
std::vector<Finding> warn(const std::string& file, const ChipList& list) {
    std::vector<Finding> findings = check(list);
    if (!findings.empty()) {
        print(file, findings, std::cerr);
        std::cerr << file << ": " << verdict(findings) << '\n';
    }
    return findings;
}

/// What the command line asks for.
struct Options {
    std::string list;
    std::string output = "spilist.bin";
    std::vector<std::string> id;
    std::optional<std::string> erase_unit;
};

/// @throws support::InputError unless the text is an erase unit of a chip
std::uint32_t read_erase_unit(const std::string& text, const ChipList& list) {
    const std::set<std::uint32_t> units = erase_units(list);
    const auto unit = parse_size(text);
    if (!unit || !units.contains(*unit)) {
        std::string all;
        for (const std::uint32_t other : units) {
            all.append(all.empty() ? "" : ", ").append(size_text(other));
        }
        throw support::InputError("--erase-unit: " + text +
                                  " is no erase unit of these chips; they have " + all);
    }
    return *unit;
}

int run_build(const Options& options) {
    const std::filesystem::path source = options.list;
    support::OutputFile file(options.output, std::span(&source, 1));
    ChipList list = read_source(source);
    if (options.erase_unit) {
        use_erase_unit(list, read_erase_unit(*options.erase_unit, list));
    }
    const std::vector<Finding> findings = check(list);
    print(options.list, findings, std::cerr);
    if (!findings.empty()) {
        std::cerr << options.output << ": not written\n";
        return kFound;
    }
    const std::vector<std::uint8_t> bytes = encode(list);
    file.write({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    file.finish();
    return 0;
}

int run_check(const Options& options) {
    const ChipList list = read_list(options.list);
    const std::vector<Finding> findings = check(list);
    print(options.list, findings, std::cout);
    std::cout << options.list << ": " << list.chips.size()
              << (list.chips.size() == 1 ? " record, " : " records, ") << findings.size()
              << (findings.size() == 1 ? " finding: " : " findings: ") << verdict(findings) << '\n';
    return findings.empty() ? 0 : kFound;
}

int run_show(const Options& options) {
    const ChipList list = read_list(options.list);
    const std::vector<Finding> findings = warn(options.list, list);
    if (list.is_list) {
        show(list, std::cout);
    }
    return findings.empty() ? 0 : kFound;
}

/// Prints the records that match a chip's answer, unless the program would reject the list.
int run_match(const Options& options) {
    std::string text;
    for (const std::string& word : options.id) {
        text.append(text.empty() ? "" : " ").append(word);
    }
    const std::vector<std::uint8_t> id = parse_id(text);
    const ChipList list = read_list(options.list);
    const std::vector<Finding> findings = warn(options.list, list);
    if (is_rejected(findings)) {
        return kFound;
    }
    const std::vector<std::size_t> records = match(list, id);
    std::cout << "The chip sends " << bytes_text(id)
              << (records.empty()
                      ? ". No record matches.\n"
                      : ". The program takes the first record whose ID bytes all match.\n");
    for (const std::size_t record : records) {
        const Chip& chip = list.chips[record];
        std::cout << (record == records.front() ? "chosen" : "hidden") << ": record " << record
                  << ", ID " << id_text(chip.entry) << ", " << size_text(chip.entry.whole_size)
                  << (chip.parts.empty() ? "" : ", ") << parts_text(chip) << '\n';
        if (!chip.note.empty()) {
            std::cout << "note: " << chip.note << '\n';
        }
    }
    return findings.empty() && !records.empty() ? 0 : kFound;
}

int run(int argc, char** argv) {
    CLI::App app("Builds, checks and shows chip lists for qfu.\n"
                 "A LIST is a list file or, when its name ends in .toml, a source.\n"
                 "The exit status is 0; 1 when there is something to report; 2 when a command or "
                 "file cannot be used.",
                 "spilist");
    app.require_subcommand(1);
    app.set_version_flag("--version", support::version_line("spilist"));
    app.footer("Examples:\n"
               "  spilist check spilist.bin\n"
               "  spilist build chips.toml -o spilist.bin\n"
               "  spilist match spilist.bin EF 40 16\n"
               "\"spilist COMMAND --help\" says more about a command.");
    Options options;

    CLI::App* build = app.add_subcommand("build", "make a list file from its source");
    build->add_option("source", options.list, "source (TOML)")->required();
    build->add_option("-o,--output", options.output, "list file")->capture_default_str();
    build->add_option("--erase-unit", options.erase_unit,
                      "make each chip's sector its largest erase unit up to this size");
    build->footer("The list file is written only if nothing is wrong with the source.\n"
                  "Examples:\n"
                  "  spilist build chips.toml -o spilist.bin\n"
                  "  spilist build chips.toml --erase-unit 64K -o fast.bin");

    CLI::App* check = app.add_subcommand("check", "say what is wrong with a list");
    CLI::App* show = app.add_subcommand("show", "print a table of a list's records");
    CLI::App* match = app.add_subcommand("match", "say which record a chip would get");
    for (CLI::App* command : {check, show, match}) {
        command->add_option("list", options.list, "list file, or source that ends in .toml")
            ->required();
    }
    match->add_option("id", options.id, "bytes that the chip answers")->required();
    match->footer(
        "The ID is what the data sheet gives as the answer to opcode 9F, and what \"qfu -l\" "
        "prints:\n"
        "1 to 4 bytes, the first one first. Bytes that are left out count as 00.\n"
        "Examples:\n"
        "  spilist match spilist.bin EF 40 16\n"
        "  spilist match chips.toml 0xEF4016");
    if (const auto status = support::read_arguments(app, {argv + std::min(argc, 1), argv + argc})) {
        return *status;
    }
    if (build->parsed()) {
        return run_build(options);
    }
    if (check->parsed()) {
        return run_check(options);
    }
    return show->parsed() ? run_show(options) : run_match(options);
}

} // namespace

int main(int argc, char** argv) try {
    const int status = run(argc, argv);
    support::finish_standard_output();
    return status;
} catch (const std::exception& error) {
    std::cerr << "spilist: " << error.what() << '\n';
    return support::kCannotRun;
}
