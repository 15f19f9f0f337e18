#include "job_file.h"

#include "file_name.h"
#include "qfu/discover.h"

namespace flash {
namespace {

constexpr std::size_t LONGEST_LINE = 1024;
constexpr std::size_t LONGEST_NAME = 64;

constexpr std::array<std::string_view, 3> PLACEHOLDERS = {"{serial}", "{uuid}", "{place}"};

struct Words {
    std::array<CHAR16, LONGEST_LINE + 1> text; ///< the line with zeros for blanks
    std::array<CHAR16*, 32> word;
    std::size_t count;
};

Outcome split(std::string_view line, Words& words) {
    if (line.size() > LONGEST_LINE) {
        return refused("the line is too long; allowed: 1024 characters");
    }
    words.count = 0;
    bool inside = false;
    CHAR16* to = words.text.data();
    for (const char c : line) {
        const bool blank = c == ' ' || c == '\t' || c == '\r';
        if (!blank && (c < ' ' || c > '~')) {
            return refused("not printable ASCII");
        }
        if (!blank && !inside) {
            if (words.count == words.word.size()) {
                return refused("too many words; allowed: 32");
            }
            words.word[words.count++] = to;
        }
        inside = !blank;
        *to++ = blank ? CHAR16{0} : static_cast<CHAR16>(c);
    }
    *to = 0;
    return {};
}

/// The place of a word in a table; the table's size when it has no such word.
std::size_t find(const CHAR16* word, std::span<const std::string_view> table) {
    std::size_t i = 0;
    while (i < table.size() && !is(word, table[i])) {
        ++i;
    }
    return i;
}

bool is_plain_character(CHAR16 c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

/// The placeholder that a text begins with; their number without one.
std::size_t placeholder_at(const CHAR16* text) {
    std::size_t i = 0;
    for (; i < PLACEHOLDERS.size(); ++i) {
        std::size_t length = 0;
        while (length < PLACEHOLDERS[i].size() &&
               text[length] == static_cast<CHAR16>(PLACEHOLDERS[i][length])) {
            ++length;
        }
        if (length == PLACEHOLDERS[i].size()) {
            break;
        }
    }
    return i;
}

/// @param is_new  the line makes the file
Outcome check_name(const platform::FileName& name, const Request& request, bool is_new) {
    platform::FileName expanded{};
    if (!expand(name, {"x", "x", "x"}, expanded)) {
        return refused("@: not allowed; allowed: up to 64 letters, digits, \".\", \"_\", \"-\", "
                       "{serial}, {uuid} and {place}",
                       {name});
    }
    constexpr std::size_t PLACE_NAME = 2;
    const CHAR16* at = name.text;
    while (*at != 0 && placeholder_at(at) != PLACE_NAME) {
        ++at;
    }
    return is_new && request.count > 1 && *at == 0
               ? refused("@: one file for several adapters; allowed: a name with {place}", {name})
               : Outcome{};
}

Outcome check_line(const Request& request) {
    if (!request.has(MODEL)) {
        return refused(
            "-model is missing; allowed: vendor and device ID such as 1e5d:c709, and any");
    }
    bool known = request.has(ANY_MODEL);
    for (const QFU_DEVICE_ENTRY& row : qfu_supported_adapters()) {
        known = known || (row.vendor_id == request.vendor && row.device_id == request.device);
    }
    if (!known) {
        return refused("-model @:@: not allowed; allowed: a model that \"flash list\" can show",
                       {Digits(request.vendor, 4), Digits(request.device, 4)});
    }
    if (request.has(OLD)) {
        if (Outcome outcome = check_name(request.old, request, true)) {
            return outcome;
        }
    }
    return request.has(FILE) ? check_name(request.file, request, request.command == Command::BACKUP)
                             : Outcome{};
}

/// Takes the value of a setting. @returns what is allowed when it is anything else, or ""
std::string_view take_setting(std::size_t setting, const Words& words, const JobLine& line,
                              JobFile& job) {
    static constexpr std::array<std::string_view, 2> ON_FAILURE = {"stop", "continue"};
    static constexpr std::array<std::string_view, 4> AT_END = {"prompt", "wait", "reset",
                                                               "power-off"};
    const CHAR16* value = words.count == 2 ? words.word[1] : words.text.end() - 1;
    std::size_t number = 0;
    switch (setting) {
    case 0:
        while (value[number] != 0) {
            ++number;
        }
        // Each character of the line has its place in the words.
        if (number > 0) {
            job.name = {line.text.data() + (value - words.text.data()), number};
        }
        return number > 0 && is_plain(job.name)
                   ? ""
                   : "up to 64 letters, digits, \".\", \"_\" and \"-\"";
    case 1:
        number = find(value, ON_FAILURE);
        job.goes_on = number == 1;
        return number < ON_FAILURE.size() ? "" : "stop, continue";
    default:
        number = find(value, AT_END);
        job.at_end = static_cast<AtEnd>(number % AT_END.size());
        return number < AT_END.size() ? "" : "prompt, wait, reset, power-off";
    }
}

Outcome take_line(const JobLine& line, JobFile& job, std::uint32_t& given, Request& request) {
    static constexpr std::array<std::string_view, 7> FIRST = {
        "job", "on-failure", "at-end", "write", "verify", "backup", "erase"};
    constexpr std::size_t SETTINGS = 3;
    if (!line.text.empty() && line.text[0] == '#') {
        return {};
    }
    Words words{};
    if (Outcome outcome = split(line.text, words)) {
        return outcome;
    }
    if (words.count == 0) {
        return {};
    }
    const std::size_t first = find(words.word[0], FIRST);
    if (first < SETTINGS) {
        const std::string_view allowed = take_setting(first, words, line, job);
        if (!allowed.empty()) {
            return refused("@ takes one value; allowed: @", {words.word[0], allowed});
        }
        const bool again = (given & 1U << first) != 0;
        given |= 1U << first;
        return again ? refused("@ is given twice", {words.word[0]}) : Outcome{};
    }
    if (first == FIRST.size()) {
        return refused(
            "unknown command @; allowed: job on-failure at-end write verify backup erase",
            {words.word[0]});
    }
    if (job.count == JOB_LINES) {
        return refused("too many commands; allowed: 64");
    }
    job.lines[job.count++] = line;
    const Outcome outcome = parse_line(line, request);
    return outcome ? outcome : check_line(request);
}

} // namespace

bool is_plain(std::string_view text) {
    for (const char c : text) {
        if (!is_plain_character(static_cast<CHAR16>(c))) {
            return false;
        }
    }
    return !text.empty() && text.size() <= LONGEST_NAME;
}

bool expand(const platform::FileName& from, const Names& names, platform::FileName& to) {
    to = {};
    std::size_t length = 0;
    for (const CHAR16* at = from.text; *at != 0;) {
        const std::size_t placeholder = placeholder_at(at);
        const char c = static_cast<char>(*at);
        std::string_view part(&c, 1);
        if (placeholder < PLACEHOLDERS.size()) {
            part = names[placeholder];
            at += PLACEHOLDERS[placeholder].size();
        } else {
            ++at;
        }
        length += part.size();
        if (!is_plain(part) || length > LONGEST_NAME || !append(to, part)) {
            return false;
        }
    }
    return true;
}

Outcome parse_job(Part file, std::string_view text, JobFile& job, Request& request) {
    std::uint32_t given = 0;
    for (std::size_t number = 1; !text.empty(); ++number) {
        std::size_t length = 0;
        while (length < text.size() && text[length] != '\n') {
            ++length;
        }
        if (Outcome outcome = take_line(
                {
                    number, {text.data(), length}
        },
                job, given, request)) {
            const Text what = reason();
            return refused("@:@: @", {file, number, what});
        }
        text.remove_prefix(length < text.size() ? length + 1 : length);
    }
    return job.count > 0 ? Outcome{}
                         : refused("@ has no command; allowed: write verify backup erase", {file});
}

Outcome parse_line(const JobLine& line, Request& request) {
    Words words{};
    if (Outcome outcome = split(line.text, words)) {
        return outcome;
    }
    request = {};
    request.given = IN_JOB;
    request.count = 1;
    const Parsed parsed = parse({words.word.data(), words.count}, request);
    request.given |= YES;
    if (parsed == Parsed::REQUEST) {
        return {};
    }
    return parsed == Parsed::REFUSED ? Outcome{Verdict::REFUSED}
                                     : refused("-h is only for the prompt");
}

} // namespace flash
