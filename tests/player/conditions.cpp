#include "conditions.h"

#include "hardware/hex.h"
#include "hardware/operation.h"
#include "machine_lines.h"
#include "support/input_error.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>

namespace session {
namespace {

using lab::Bytes;

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
    for (const emulator::OperationTraits& traits : emulator::kOperations) {
        const std::string name(traits.name);
        const std::uint64_t count =
            seen.operations.contains(traits.operation) ? seen.operations.at(traits.operation) : 0;
        const bool named = (line + ',').find(' ' + name + ',') != line.npos;
        if (named || (traits.stores && count > 0)) {
            result += (result.empty() ? "" : ", ") + std::to_string(count) + " " + name;
        }
    }
    return "bus: " + (result.empty() ? "nothing" : result);
}

std::size_t number(const std::string& word) {
    std::size_t used = 0;
    std::size_t value = 0;
    try {
        value = std::stoul(word, &used, 16);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != word.size()) {
        throw support::InputError(word + " is no number");
    }
    return value;
}

/// The place that a word names; without a word that of the machine's only chip.
std::string place_of(const Lines& words, std::size_t word, const After& after) {
    const Flash& chips = after.flash_before;
    if (word == words.size() && chips.size() != 1) {
        throw support::InputError("name the chip, such as 0.cs1");
    }
    const std::string place = word == words.size() ? chips.begin()->first : words[word];
    if (!chips.contains(place)) {
        throw support::InputError("there is no chip " + place);
    }
    return place;
}

Bytes part_of(std::span<const std::uint8_t> chip, std::size_t address, std::size_t size) {
    if (address > chip.size() || size > chip.size() - address) {
        throw support::InputError("this is past the end of the chip");
    }
    const auto part = chip.subspan(address, size);
    return {part.begin(), part.end()};
}

Bytes read_file(const std::filesystem::path& folder, const std::string& name) {
    const auto bytes = find_file(folder, name);
    if (!bytes) {
        throw support::InputError("there is no file " + name);
    }
    return *bytes;
}

/// The first difference, or "".
std::string difference(std::span<const std::uint8_t> now, std::span<const std::uint8_t> wanted) {
    const auto at = std::ranges::mismatch(now, wanted);
    if (at.in1 != now.end() && at.in2 != wanted.end()) {
        return "holds " + emulator::hex(*at.in1, 2) + " at " +
               emulator::hex(static_cast<std::size_t>(at.in1 - now.begin()), 1) + ", not " +
               emulator::hex(*at.in2, 2);
    }
    return now.size() == wanted.size() ? ""
                                       : "has " + std::to_string(now.size()) + " bytes, not " +
                                             std::to_string(wanted.size());
}

/// "flash [PLACE]: @1000 = image.bin, @2000 10 = FF, rest same"
std::string flash(const std::string& line, const After& after) {
    const std::size_t colon = line.find(':');
    const std::string place = place_of(split(line.substr(0, colon)), 1, after);
    const auto chip = chips_of(*after.stage.machine).at(place);
    const std::string wrong =
        difference(chip, described_flash(line.substr(colon + 1), chip, after.flash_before.at(place),
                                         after.folder));
    return wrong.empty() ? line : line.substr(0, colon) + " " + wrong;
}

/// "file NAME missing", "file NAME = OTHER", "file NAME = flash [PLACE] @1000 20"
std::string file(const std::string& line, const After& after) {
    auto words = split(line);
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
        const std::size_t size = number(words.back());
        words.pop_back();
        const std::size_t address = number(words.back().substr(1));
        words.pop_back();
        const auto chips = chips_of(*after.stage.machine);
        wanted = part_of(chips.at(place_of(words, 4, after)), address, size);
    } else if (words[3] != "nothing") {
        wanted = read_file(after.folder, words[3]);
    }
    const std::string wrong = difference(*bytes, wanted);
    return wrong.empty() ? line : "file " + words[1] + " " + wrong;
}

/// A line for each misuse; equal ones in a row are counted.
Lines misuse_lines(const Observation& seen) {
    Lines lines;
    for (std::size_t i = 0; i < seen.misuses.size();) {
        const std::string& misuse = seen.misuses[i];
        std::size_t times = 0;
        for (; i < seen.misuses.size() && seen.misuses[i] == misuse; ++i) {
            ++times;
        }
        lines.push_back("misuse: " + misuse +
                        (times == 1 ? "" : " (" + std::to_string(times) + " times)"));
    }
    return lines;
}

} // namespace

Bytes described_flash(const std::string& text, std::span<const std::uint8_t> now,
                      std::span<const std::uint8_t> before, const std::filesystem::path& folder) {
    Lines parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, ',');) {
        parts.push_back(part);
    }
    Bytes result(now.begin(), now.end());
    // The rest is described last, and the other parts lie on it.
    for (std::size_t i = parts.size(); i-- > 0;) {
        const auto words = split(parts[i]);
        const bool rest = i + 1 == parts.size() && words.size() == 2 && words[0] == "rest";
        const bool one_file = words.size() == 3 && words[1] == "=";
        const bool sized = words.size() == 4 && words[2] == "=";
        if (!rest && ((!one_file && !sized) || words[0][0] != '@')) {
            throw support::InputError("write @ADDRESS = FILE, @ADDRESS SIZE = BYTE or rest BYTE");
        }
        const std::size_t address = rest ? 0 : number(words[0].substr(1));
        Bytes bytes;
        if (one_file) {
            bytes = read_file(folder, words[2]);
        } else {
            const std::size_t size = rest ? now.size() : number(words[1]);
            if (words.back() == "same") {
                bytes = part_of(before, address, size);
            } else {
                bytes.assign(size, static_cast<std::uint8_t>(number(words.back())));
            }
        }
        part_of(now, address, bytes.size());
        std::ranges::copy(bytes, result.begin() + static_cast<std::ptrdiff_t>(address));
    }
    return result;
}

bool is_refused(const Observation& seen) {
    return seen.status == 3 && seen.console.ends_with(kRefusal);
}

bool is_condition(const std::string& line) {
    constexpr std::array kStarts = {
        "= ", "took ", "bus: ", "flash: ", "flash ", "file ", "misuse: "};
    return line == "starved" ||
           std::ranges::any_of(kStarts, [&](const char* start) { return line.starts_with(start); });
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

Lines needed_lines(const Observation& seen) {
    Lines lines = misuse_lines(seen);
    if (seen.status != 0) {
        lines.insert(lines.begin(),
                     is_refused(seen) ? "= refused" : "= " + std::to_string(seen.status));
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
