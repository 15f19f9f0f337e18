// The chip list tool.
#include "check.h"
#include "diff.h"
#include "image.h"
#include "show.h"
#include "source.h"
#include "support/input_error.h"
#include "support/version.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <fstream>
#include <iostream>
#include <optional>

namespace {

using namespace chiplist;

constexpr int kFound = 1;
constexpr int kUsage = 2;

/// Bytes of a file that are read: all of a list and enough to see that there are more.
constexpr std::size_t kMostBytes = 4096;

std::vector<std::uint8_t> read_bytes(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    std::vector<std::uint8_t> bytes(kMostBytes);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (file.bad() || !file.is_open() || (file.gcount() == 0 && !file.eof())) {
        throw support::InputError(name + ": cannot be read");
    }
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    return bytes;
}

/// A source when the name ends in ".toml", else a list file.
Decoded read_list(const std::string& name) {
    if (name.ends_with(".toml")) {
        return {read_source(name), {}};
    }
    return decode(read_bytes(name));
}

std::vector<Finding> all_findings(const Decoded& read) {
    std::vector<Finding> findings = read.findings;
    std::ranges::copy(check(read.list), std::back_inserter(findings));
    return findings;
}

void print(const std::string& file, const std::vector<Finding>& findings, std::ostream& out) {
    for (const Finding& finding : findings) {
        out << file << ": " << finding.entry << ": " << finding.field << ": " << finding.what
            << '\n';
    }
}

void print(const Json& json) {
    std::cout << json.dump(2) << '\n';
}

/// What the command line asks for.
struct Options {
    std::string list;
    std::string other;
    std::string output = "spilist.bin";
    std::string source;
    std::string id;
    std::optional<std::string> erase_unit;
    bool json = false;
};

int run_build(const Options& options) {
    ChipList list = read_source(options.list);
    if (options.erase_unit) {
        const auto unit = parse_size(*options.erase_unit);
        if (!unit) {
            throw support::InputError("--erase-unit must be a size like 64K");
        }
        use_erase_unit(list, *unit);
    }
    const std::vector<Finding> findings = check(list);
    print(options.list, findings, std::cerr);
    if (!findings.empty()) {
        return kFound;
    }
    const std::vector<std::uint8_t> bytes = encode(list);
    std::ofstream file(options.output, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        throw support::InputError(options.output + ": cannot be written");
    }
    return 0;
}

int run_check(const Options& options) {
    const Decoded read = read_list(options.list);
    const std::vector<Finding> findings = all_findings(read);
    const bool rejected = std::ranges::any_of(
        findings, [](const Finding& finding) { return finding.effect == Effect::kRejected; });
    if (options.json) {
        Json json;
        json["rejected"] = rejected;
        json["findings"] = Json::array();
        for (const Finding& finding : findings) {
            json["findings"].push_back(to_json(finding));
        }
        print(json);
    } else {
        print(options.list, findings, std::cout);
        std::cout << options.list << ": " << read.list.chips.size() << " chips, " << findings.size()
                  << " findings" << (rejected ? "; the program rejects the list" : "") << '\n';
    }
    return findings.empty() ? 0 : kFound;
}

int run_show(const Options& options) {
    Decoded read = read_list(options.list);
    if (!options.source.empty()) {
        take_names(read.list, read_source(options.source));
    }
    if (options.json) {
        print(to_json(read.list));
    } else {
        show(read.list, std::cout);
    }
    print(options.list, read.findings, std::cerr);
    return read.findings.empty() ? 0 : kFound;
}

int run_diff(const Options& options) {
    const std::vector<Difference> differences =
        diff(read_list(options.list).list, read_list(options.other).list);
    Json json = Json::array();
    for (const Difference& difference : differences) {
        json.push_back({
            {"entry",  difference.entry },
            {"field",  difference.field },
            {"before", difference.before},
            {"after",  difference.after }
        });
        if (!options.json) {
            std::cout << difference.entry << ": " << difference.field << ": "
                      << (difference.before.empty() ? "none" : difference.before) << " -> "
                      << (difference.after.empty() ? "none" : difference.after) << '\n';
        }
    }
    if (options.json) {
        print(json);
    }
    return differences.empty() ? 0 : kFound;
}

/// An identification as a chip sends it, "EF 40 16", or as the program holds it, "0x1640EF" with
/// the first byte lowest. Bytes that are not given are 0.
std::uint32_t parse_id(const std::string& text) {
    const bool number = text.starts_with("0x") || text.starts_with("0X");
    std::string digits = number ? text.substr(2) : text;
    std::erase(digits, ' ');
    std::uint32_t value = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, 16);
    if (error != std::errc() || stop != end || digits.size() > 8 ||
        (!number && digits.size() % 2 != 0)) {
        throw support::InputError(text + ": must be an ID like \"EF 40 16\" or 0x1640EF");
    }
    if (number) {
        return value;
    }
    std::uint32_t id = 0;
    for (std::size_t i = 0; i < digits.size() / 2; ++i) {
        const std::uint32_t byte = value >> (4 * digits.size() - 8 * (i + 1)) & 0xFF;
        id |= byte << 8 * i;
    }
    return id;
}

/// The records that match, the one that the program chooses first. It takes the value 0 for no
/// answer.
std::vector<std::size_t> matching(const ChipList& list, std::uint32_t id) {
    std::vector<std::size_t> matches;
    for (std::size_t i = 0; id != 0 && i < list.chips.size(); ++i) {
        if (qfu_spiflash_id_match(list.chips[i].entry, id) == 0) {
            matches.push_back(i);
        }
    }
    return matches;
}

int run_match(const Options& options) {
    Decoded read = read_list(options.list);
    if (!options.source.empty()) {
        take_names(read.list, read_source(options.source));
    }
    const std::vector<std::size_t> matches = matching(read.list, parse_id(options.id));
    if (options.json) {
        Json json;
        json["chosen"] = nullptr;
        json["hidden"] = Json::array();
        for (const std::size_t match : matches) {
            Json chip = to_json(read.list.chips[match]);
            chip["record"] = match;
            if (match == matches.front()) {
                json["chosen"] = chip;
            } else {
                json["hidden"].push_back(chip);
            }
        }
        print(json);
    } else if (matches.empty()) {
        std::cout << "no record matches\n";
    } else {
        for (const std::size_t match : matches) {
            const Chip& chip = read.list.chips[match];
            std::cout << (match == matches.front() ? "chosen" : "hidden") << ": record " << match
                      << ", ID " << id_text(chip.entry) << ", " << size_text(chip.entry.whole_size)
                      << (chip.parts.empty() ? "" : ", ") << parts_text(chip) << '\n';
        }
    }
    return matches.empty() ? kFound : 0;
}

} // namespace

int main(int argc, char** argv) try {
    CLI::App app{"Builds, checks and compares chip lists for qfu.\n"
                 "A LIST is a list file or, when its name ends in .toml, a source.\n"
                 "The exit status is 0, 1 when there is something to report, 2 when a command or "
                 "file cannot be used."};
    app.require_subcommand(1);
    app.set_version_flag("--version", support::version_line("spilist"));
    Options options;

    CLI::App* build = app.add_subcommand("build", "make a list file from its source");
    build->add_option("source", options.list, "source (TOML)")->required();
    build->add_option("-o,--output", options.output, "list file")->capture_default_str();
    build->add_option("--erase-unit", options.erase_unit,
                      "take each chip's largest erase unit up to this size as its sector");

    CLI::App* check = app.add_subcommand("check", "say why the program would reject or misuse it");
    CLI::App* show = app.add_subcommand("show", "print a table of its records");
    CLI::App* diff = app.add_subcommand("diff", "say what differs between two lists");
    CLI::App* match = app.add_subcommand("match", "say which record a chip would get");
    for (CLI::App* command : {check, show, diff, match}) {
        command->add_option("list", options.list, "list")->required();
        command->add_flag("--json", options.json, "print JSON");
    }
    for (CLI::App* command : {show, match}) {
        command->add_option("--source", options.source, "source that has part names and notes");
    }
    diff->add_option("other", options.other, "other list")->required();
    match->add_option("id", options.id, "what the chip answers, \"EF 40 16\" or 0x1640EF")
        ->required();
    app.footer("Example:\n  spilist build chips.toml -o spilist.bin");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    }
    if (build->parsed()) {
        return run_build(options);
    }
    if (check->parsed()) {
        return run_check(options);
    }
    if (show->parsed()) {
        return run_show(options);
    }
    return diff->parsed() ? run_diff(options) : run_match(options);
} catch (const std::exception& error) {
    std::cerr << "spilist: " << error.what() << '\n';
    return kUsage;
}
