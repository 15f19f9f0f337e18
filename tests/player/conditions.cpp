#include "conditions.h"

#include "machine_lines.h"
#include "support/input_error.h"

#include <algorithm>
#include <fmt/format.h>
#include <regex>
#include <sstream>

namespace session {
namespace {

using lab::Bytes;

std::size_t number(const std::string& word) {
    return std::stoul(word, nullptr, 16);
}

Bytes part_of(const Bytes& chip, std::size_t address, std::size_t size) {
    if (address > chip.size() || size > chip.size() - address) {
        throw support::InputError("this is past the end of the chip");
    }
    const auto from = chip.begin() + static_cast<std::ptrdiff_t>(address);
    return {from, from + static_cast<std::ptrdiff_t>(size)};
}

Bytes read_file(const std::filesystem::path& file) {
    if (!std::filesystem::exists(file)) {
        throw support::InputError("there is no file " + file.filename().string());
    }
    return lab::read_file(file);
}

/// A chip by its place, or the machine's only one.
const Bytes& chip_at(const Flash& chips, const std::string& place) {
    const auto chip = place.empty() && chips.size() == 1 ? chips.begin() : chips.find(place);
    if (chip == chips.end()) {
        throw support::InputError("name a chip of the machine, such as 0.cs1");
    }
    return chip->second;
}

/// "took 10.2 s" with as many digits as the session has.
std::string took(const Lines& words, const Observation& seen) {
    const std::string& time = words.at(1);
    const std::size_t digits = time.size() - 1 - std::min(time.find('.'), time.size() - 1);
    const std::string& unit = words.at(2);
    const double ns = unit == "s" ? 1e9 : unit == "ms" ? 1e6 : 1e3;
    return fmt::format("took {:.{}f} {}", static_cast<double>(seen.ns) / ns, digits, unit);
}

/// "bus: 3 sector erase, 8 program": what the line names, and all that changes a chip.
std::string bus(const std::string& line, const Observation& seen) {
    std::string result;
    for (const emulator::OperationTraits& traits : emulator::kOperations) {
        const std::uint64_t count = seen.operations.at(static_cast<std::size_t>(traits.operation));
        const bool named = (line + ',').find(fmt::format(" {},", traits.name)) != line.npos;
        if (named || (traits.stores && count > 0)) {
            result += fmt::format("{} {} {}", result.empty() ? "" : ",", count, traits.name);
        }
    }
    return "bus:" + (result.empty() ? " nothing" : result);
}

/// `line` when the bytes are those that are wanted, else the first difference.
std::string compare(const std::string& line, const Bytes& now, const Bytes& wanted) {
    const auto [is, should] = std::ranges::mismatch(now, wanted);
    if (is != now.end() && should != wanted.end()) {
        return fmt::format("{}: {:X} holds {:02X}, not {:02X}", line, is - now.begin(), *is,
                           *should);
    }
    return now.size() == wanted.size()
               ? line
               : fmt::format("{}: {} bytes, not {}", line, now.size(), wanted.size());
}

/// "flash [PLACE]: @1000 = image.bin, @2000 10 = FF, rest same"
std::string flash(const std::string& line, const After& after) {
    const std::size_t colon = line.find(':');
    const std::string place = line.substr(0, colon).substr(std::min(colon, std::size_t{6}));
    const Bytes& now = chip_at(after.now, place);
    const Bytes& before = chip_at(after.before, place);
    return compare(line, now, described_flash(line.substr(colon + 1), now, before, after.folder));
}

/// The bytes of "= OTHER", "= nothing" or "= flash [PLACE] @1000 20".
Bytes wanted_in_file(const std::string& line, const After& after) {
    static const std::regex kFlash("file \\S+ = flash (?:(\\S+) )?@([0-9A-F]+) ([0-9A-F]+)");
    static const std::regex kOther("file \\S+ = (\\S+)");
    std::smatch parts;
    if (std::regex_match(line, parts, kFlash)) {
        return part_of(chip_at(after.now, parts[1]), number(parts[2]), number(parts[3]));
    }
    if (!std::regex_match(line, parts, kOther)) {
        throw support::InputError("write file NAME = OTHER, = flash @ADDRESS SIZE, or missing");
    }
    return parts[1] == "nothing" ? Bytes{} : read_file(after.folder / parts[1].str());
}

/// "file NAME missing" or "file NAME = ..."
std::string file(const std::string& line, const Lines& words, const After& after) {
    const auto name = after.folder / words.at(1);
    const bool exists = std::filesystem::exists(name);
    if (!exists || words.at(2) == "missing") {
        return "file " + words[1] + (exists ? " exists" : " missing");
    }
    return compare(line, lab::read_file(name), wanted_in_file(line, after));
}

/// Index registers in BAR 5 with their data registers: SPI, and the PHY test's three.
const std::map<std::string, std::string> kPairs = {
    {"A8",  "AC" },
    {"B0",  "B4" },
    {"178", "17C"},
    {"1F8", "1FC"}
};

/// Puts the register accesses of each cycle on one line: a write that follows a read starts a new
/// line. "A8:06000004<00012000" is a write through an index register and its data register.
Lines by_cycle(const Lines& accesses) {
    std::string text;
    for (std::string access : accesses) { // "0  BAR5+000A8 < 06000004"
        std::erase(access, ' ');
        text += (text.empty() ? "" : " ") + access.substr(access.find("BAR"));
    }
    for (const auto& [index, data] : kPairs) {
        const std::regex pair("BAR5\\+0*" + index + "<(\\w+) BAR5\\+0*" + data);
        text = std::regex_replace(text, pair, index + ":$1");
    }
    text = std::regex_replace(text, std::regex("(>\\w+) (?=[^ >]+<)"), "$1\n");
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// The status that a session implies: the one that goes with the last line of flash, else 0.
unsigned implied_status(const std::string& console) {
    const std::size_t end = console.rfind("\r\n");
    const std::string line =
        console.substr(0, end).substr(console.find_last_of("\r\n", end - 1) + 1);
    return line.starts_with("FAILED: ") ? 1 : line.starts_with("refused: ") ? 2 : 0;
}

/// What must be said after a command: status, misuse (equal ones in a row are counted), keys.
Lines needed_lines(const Observation& seen) {
    Lines lines;
    if (seen.status != implied_status(seen.console)) {
        lines.push_back(seen.refused() ? "= refused" : "= " + std::to_string(seen.status));
    }
    for (auto at = seen.misuses.begin(); at != seen.misuses.end();) {
        const auto next = std::find_if(at, seen.misuses.end(),
                                       [&](const std::string& misuse) { return misuse != *at; });
        const auto times = next - at;
        lines.push_back("misuse: " + *at + (times == 1 ? "" : fmt::format(" ({} times)", times)));
        at = next;
    }
    if (seen.starved) {
        lines.emplace_back("starved");
    }
    if (seen.unread_keys != 0) {
        lines.push_back("unread keys: " + std::to_string(seen.unread_keys));
    }
    return lines;
}

} // namespace

Bytes described_flash(const std::string& text, const Bytes& now, const Bytes& before,
                      const std::filesystem::path& folder) {
    static const std::regex kPart(" ?(?:@([0-9A-F]+)(?: ([0-9A-F]+))? =|rest) (\\S+)");
    Lines parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, ',');) {
        parts.push_back(part);
    }
    Bytes result = now;
    // The rest is described last, and the other parts lie on it.
    for (auto part = parts.rbegin(); part != parts.rend(); ++part) {
        std::smatch words;
        const bool match = std::regex_match(*part, words, kPart);
        const bool rest = match && !words[1].matched;
        if (!match || (rest && part != parts.rbegin())) {
            throw support::InputError("write @ADDRESS = FILE, @ADDRESS SIZE = BYTE, rest BYTE");
        }
        const std::size_t at = rest ? 0 : number(words[1]);
        const std::size_t size = words[2].matched ? number(words[2]) : now.size();
        const std::string value = words[3];
        const Bytes bytes = !rest && !words[2].matched ? read_file(folder / value)
                            : value == "same"
                                ? part_of(before, at, size)
                                : Bytes(size, static_cast<std::uint8_t>(number(value)));
        part_of(now, at, bytes.size()); // fails past the end
        std::ranges::copy(bytes, result.begin() + static_cast<std::ptrdiff_t>(at));
    }
    return result;
}

bool is_condition(const std::string& line) {
    const std::string word = line.substr(0, line.find(' '));
    return word == "=" || word == "misuse:" || line == "starved" || word == "took" ||
           word == "bus:" || word == "flash:" || word == "flash" || word == "file";
}

Lines as_they_hold(std::span<const std::string> below, const After& after) {
    Lines lines;
    Lines needed = needed_lines(after.seen);
    for (const std::string& line : below) {
        const auto words = split(line);
        const std::string word = line.substr(0, line.find(' '));
        const auto need = std::ranges::find(needed, line);
        if (need != needed.end()) {
            lines.push_back(line);
            needed.erase(need);
        } else if (word == "took") {
            lines.push_back(took(words, after.seen));
        } else if (word == "bus:") {
            lines.push_back(bus(line, after.seen));
        } else if (word == "flash:" || word == "flash") {
            lines.push_back(flash(line, after));
        } else if (word == "file") {
            lines.push_back(file(line, words, after));
        } else if (line == "cycles:" || line == "registers:") {
            const Lines block =
                line == "cycles:" ? after.seen.cycles : by_cycle(after.seen.registers);
            lines.push_back(line);
            lines.insert(lines.end(), block.begin(), block.end());
            lines.emplace_back("end");
        }
    }
    lines.insert(lines.end(), needed.begin(), needed.end());
    return lines;
}

} // namespace session
