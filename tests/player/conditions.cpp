#include "conditions.h"

#include "hardware/hex.h"
#include "machine_lines.h"
#include "support/input_error.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace session {
namespace {

using emulator::Operation;
using lab::Bytes;

/// Operations that can change a chip. A "bus:" line has them all.
bool changes_chip(Operation operation) {
    switch (operation) {
    case Operation::kWriteStatus:
    case Operation::kProgram:
    case Operation::kProgramWord:
    case Operation::kSectorErase:
    case Operation::kBlockErase:
    case Operation::kChipErase:
    case Operation::kProtectSector:
    case Operation::kUnprotectSector:
        return true;
    default:
        return false;
    }
}

/// "took 10.2 s" with as many digits as the session has.
std::string took(const std::string& line, const Observation& seen) {
    const auto words = split(line);
    if (words.size() != 3 || (words[2] != "s" && words[2] != "ms" && words[2] != "us")) {
        throw support::InputError("write \"took NUMBER s\", ms or us");
    }
    const std::size_t point = words[1].find('.');
    const int digits = point == words[1].npos ? 0 : static_cast<int>(words[1].size() - point - 1);
    const double unit = words[2] == "s" ? 1e9 : words[2] == "ms" ? 1e6 : 1e3;
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "took %.*f ", digits,
                  static_cast<double>(seen.ns) / unit);
    return text.data() + words[2];
}

/// "bus: 3 sector erase, 8 program": what the line names, and all that changes a chip.
std::string bus(const std::string& line, const Observation& seen) {
    std::string result;
    for (const auto& [operation, count] : seen.operations) {
        const std::string name(operation_name(operation));
        const bool named = (line + ',').find(' ' + name + ',') != line.npos;
        if (named || (changes_chip(operation) && count > 0)) {
            result += (result.empty() ? "" : ", ") + std::to_string(count) + " " + name;
        }
    }
    return "bus: " + (result.empty() ? "nothing" : result);
}

struct Chip {
    std::span<const std::uint8_t> now;
    const Bytes* before;
};

/// The chip of a word like "0.cs1"; without a word the machine's only one.
Chip find_chip(const std::string& place, const After& after) {
    std::size_t i = 0;
    const auto chips = chips_of(*after.stage.machine);
    if (place.empty() && chips.size() != 1) {
        throw support::InputError("name the chip, such as 0.cs1");
    }
    for (const auto& adapter : after.stage.machine->adapters()) {
        const bool nor = adapter->nor() != nullptr && adapter->nor()->chip() != nullptr;
        for (const char* select : {".cs0", ".cs1"}) {
            if (select[3] == '0' ? !nor : adapter->spi().chip() == nullptr) {
                continue;
            }
            if (place.empty() || place == adapter->name() + select) {
                return {chips[i], &after.flash_before[i]};
            }
            ++i;
        }
    }
    throw support::InputError("there is no chip " + place);
}

std::size_t number(const std::string& word, int base) {
    std::size_t used = 0;
    std::size_t value = 0;
    try {
        value = std::stoul(word, &used, base);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != word.size()) {
        throw support::InputError(word + " is no number");
    }
    return value;
}

std::vector<std::string> split_at_commas(const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, ',');) {
        parts.push_back(part);
    }
    return parts;
}

/// The first difference, or "".
std::string difference(std::span<const std::uint8_t> now, std::span<const std::uint8_t> wanted,
                       std::size_t address) {
    if (now.size() < wanted.size()) {
        return "ends before " + emulator::hex(address + wanted.size(), 1);
    }
    const auto at = std::ranges::mismatch(wanted, now);
    if (at.in1 == wanted.end()) {
        return "";
    }
    const auto i = static_cast<std::size_t>(at.in1 - wanted.begin());
    return "holds " + emulator::hex(now[i], 2) + " at " + emulator::hex(address + i, 1) + ", not " +
           emulator::hex(wanted[i], 2);
}

/// "flash [PLACE]: @1000 = image.bin, @2000 10 = FF, rest same"
std::string flash(const std::string& line, const After& after) {
    const std::size_t colon = line.find(':');
    const auto head = split(line.substr(0, colon));
    const Chip chip = find_chip(head.size() > 1 ? head[1] : "", after);
    std::vector<bool> named(chip.now.size());
    std::string wrong;
    for (const std::string& part : split_at_commas(line.substr(colon + 1))) {
        const auto words = split(part);
        Bytes wanted;
        std::size_t address = 0;
        if (words.size() == 2 && words[0] == "rest") {
            const bool same = words[1] == "same";
            const auto byte = same ? 0 : static_cast<std::uint8_t>(number(words[1], 16));
            wanted.assign(chip.now.begin(), chip.now.end());
            for (std::size_t i = 0; i < wanted.size(); ++i) {
                if (!named[i]) {
                    wanted[i] = same ? (*chip.before)[i] : static_cast<std::uint8_t>(byte);
                }
            }
        } else if (words.size() == 3 && words[0][0] == '@' && words[1] == "=") {
            address = number(words[0].substr(1), 16);
            wanted = find_file(after.folder, words[2]).value_or(Bytes{});
        } else if (words.size() == 4 && words[0][0] == '@' && words[2] == "=") {
            address = number(words[0].substr(1), 16);
            const std::size_t size = number(words[1], 16);
            if (words[3] == "same") {
                const auto from = chip.before->begin() + static_cast<std::ptrdiff_t>(address);
                wanted.assign(from, from + static_cast<std::ptrdiff_t>(size));
            } else {
                wanted.assign(size, static_cast<std::uint8_t>(number(words[3], 16)));
            }
        } else {
            throw support::InputError("write @ADDRESS = FILE, @ADDRESS SIZE = BYTE or rest BYTE");
        }
        if (address + wanted.size() > chip.now.size()) {
            throw support::InputError(part + " is past the end of the chip");
        }
        std::fill_n(named.begin() + static_cast<std::ptrdiff_t>(address), wanted.size(), true);
        wrong = wrong.empty() ? difference(chip.now.subspan(address), wanted, address) : wrong;
    }
    return wrong.empty() ? line : line.substr(0, colon) + " " + wrong;
}

/// "file NAME missing", "file NAME = OTHER", "file NAME = flash [PLACE] @1000 20"
std::string file(const std::string& line, const After& after) {
    const auto words = split(line);
    const bool missing = words.size() == 3 && words[2] == "missing";
    if (!missing && (words.size() < 4 || words[2] != "=")) {
        throw support::InputError("write file NAME = OTHER, = flash @ADDRESS SIZE, or missing");
    }
    const auto bytes = find_file(after.folder, words[1]);
    if (missing || !bytes) {
        return "file " + words[1] + (bytes ? " exists" : " missing");
    }
    Bytes wanted;
    if (words[3] == "flash") {
        const std::size_t at = words.size() - 2;
        const Chip chip = find_chip(at == 5 ? words[4] : "", after);
        const std::size_t address = number(words[at].substr(1), 16);
        const auto part = chip.now.subspan(address, number(words[at + 1], 16));
        wanted.assign(part.begin(), part.end());
    } else if (words[3] != "nothing") {
        wanted = find_file(after.folder, words[3]).value_or(Bytes{});
    }
    std::string wrong = difference(*bytes, wanted, 0);
    if (wrong.empty() && bytes->size() != wanted.size()) {
        wrong =
            "has " + std::to_string(bytes->size()) + " bytes, not " + std::to_string(wanted.size());
    }
    return wrong.empty() ? line : "file " + words[1] + " " + wrong;
}

std::string status_line(const Observation& seen) {
    return is_refused(seen) ? "= refused" : "= " + std::to_string(seen.status);
}

/// A line for each misuse; equal ones in a row are counted.
std::vector<std::string> misuse_lines(const Observation& seen) {
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < seen.misuses.size();) {
        std::size_t same = i;
        while (same < seen.misuses.size() && seen.misuses[same] == seen.misuses[i]) {
            ++same;
        }
        const std::string times = same - i == 1 ? "" : " (" + std::to_string(same - i) + " times)";
        lines.push_back("misuse: " + seen.misuses[i] + times);
        i = same;
    }
    return lines;
}

} // namespace

bool is_refused(const Observation& seen) {
    return seen.status == 3 && seen.console.ends_with(kRefusal);
}

bool is_condition(const std::string& line) {
    return line.starts_with("= ") || line.starts_with("took ") || line.starts_with("bus: ") ||
           line.starts_with("flash: ") || line.starts_with("flash ") || line.starts_with("file ") ||
           line.starts_with("misuse: ") || line == "starved";
}

std::optional<std::string> as_it_holds(const std::string& line, const After& after) {
    if (line.starts_with("took ")) {
        return took(line, after.seen);
    }
    if (line.starts_with("bus: ")) {
        return bus(line, after.seen);
    }
    if (line.starts_with("flash")) {
        return flash(line, after);
    }
    if (line.starts_with("file ")) {
        return file(line, after);
    }
    const auto needed = needed_lines(after.seen);
    return std::ranges::find(needed, line) != needed.end() ? std::optional(line) : std::nullopt;
}

std::vector<std::string> needed_lines(const Observation& seen) {
    std::vector<std::string> lines = misuse_lines(seen);
    if (seen.status != 0) {
        lines.insert(lines.begin(), status_line(seen));
    }
    if (seen.starved) {
        lines.emplace_back("starved");
    }
    if (seen.unread_keys != 0) {
        lines.push_back("unread keys: " + std::to_string(seen.unread_keys));
    }
    return lines;
}

} // namespace session
