#include "request.h"

#include "qfu/adapter.h"

namespace flash {
namespace {

constexpr std::uint32_t CHOICE = ADAPTER | CHIP_SELECT | MODEL | PLACE;

struct CommandRow {
    std::string_view name;
    std::string_view file; ///< what the file is called; empty for a command without one
    std::uint32_t options; ///< that the command takes
    std::string_view does;
};

/// In the order of Command.
constexpr CommandRow COMMANDS[] = {
    {"list",    "",      0,                                        "shows the adapters and their chips.\n"                                  },
    {"write",   "IMAGE", ADDRESS | CHOICE | SUM | OLD | ALL | YES,
     "programs a file and proves that the flash holds it. Changes only what differs, and keeps "
     "the\n"
     "bytes around the image. Saves what it changes as IMAGE.old000, or the next free number.\n"                                            },
    {"verify",  "IMAGE", ADDRESS | CHOICE | TIMES,                 "compares the flash with a file.\n"                                      },
    {"backup",  "FILE",  ADDRESS | SIZE | CHOICE,
     "saves the chip or a range in a new file, and describes it in FILE.txt.\n"                                                             },
    {"restore", "FILE",  CHOICE | YES,
     "puts a saved file back to where it came from. Needs FILE.txt. Erases and programs\n"
     "every erase unit again. Saves what it changes as FILE.old000.\n"                                                                      },
    {"erase",   "",      ADDRESS | SIZE | CHOICE | OLD | YES,
     "erases the chip or a range and keeps the bytes around it. Saves what it changes as\n"
     "erase.old000.\n"                                                                                                                      },
    {"blank",   "",      ADDRESS | SIZE | CHOICE,                  "checks that the chip or a range reads FF.\n"                            },
    {"info",    "",      CHOICE,                                   "shows what a chip answers.\n"                                           },
    {"job",     "FILE",  0,                                        "runs the command lines of a file when all of them can be carried out.\n"},
};

struct OptionRow {
    std::string_view name;
    std::string_view value; ///< what the value is called; empty for an option without one
    std::uint32_t option;
    std::string_view does;
};

constexpr OptionRow OPTIONS[] = {
    {"-addr",  "A",      ADDRESS,     "first address of the range; without it 0"                    },
    {"-sz",    "N",      SIZE,        "bytes of the range; with -addr. Without both: the whole chip"},
    {"-adid",  "N",      ADAPTER,     "the adapter with this number in \"flash list\""              },
    {"-csid",  "N",      CHIP_SELECT, "the chip at chip select 0 or 1"                              },
    {"-model", "V:D",    MODEL,       "the adapter with these IDs, such as 1e5d:c709"               },
    {"-at",    "B:D.F",  PLACE,       "the adapter at this place, such as 01:04.0"                  },
    {"-sum",   "SHA256", SUM,         "refuse an image with another SHA-256"                        },
    {"-old",   "NEW",    OLD,         "save what is changed under this name, such as fs1:old.bin"   },
    {"-n",     "TIMES",  TIMES,       "read this many times, 1 to 1000"                             },
    {"-all",   "",       ALL,         "erase and program all of it"                                 },
    {"-y",     "",       YES,         "do not ask"                                                  },
    {"-count", "N",      COUNT,       ""                                                            },
};

/// The value of a digit; 16 for everything else.
std::uint32_t digit(CHAR16 c) {
    if (c >= '0' && c <= '9') {
        return static_cast<std::uint32_t>(c - '0');
    }
    if (c >= 'a' && c <= 'f') {
        return static_cast<std::uint32_t>(c - 'a' + 10);
    }
    return c >= 'A' && c <= 'F' ? static_cast<std::uint32_t>(c - 'A' + 10) : 16;
}

/// Takes up to `most` hexadecimal digits, one at least, from the front of `text`.
bool take_digits(const CHAR16*& text, std::size_t most, std::uint32_t& number) {
    number = 0;
    std::size_t count = 0;
    for (; count < most && digit(*text) < 16; ++count) {
        number = number << 4 | digit(*text++);
    }
    return count > 0;
}

bool take(const CHAR16*& text, char c) {
    if (*text != static_cast<CHAR16>(c)) {
        return false;
    }
    ++text;
    return true;
}

bool parse_model(const CHAR16* text, Request& request) {
    std::uint32_t vendor = 0;
    std::uint32_t device = 0;
    if (!take_digits(text, 4, vendor) || !take(text, ':') || !take_digits(text, 4, device)) {
        return false;
    }
    request.vendor = static_cast<std::uint16_t>(vendor);
    request.device = static_cast<std::uint16_t>(device);
    return *text == 0;
}

/// Adapters are function 0.
bool parse_place(const CHAR16* text, Request& request) {
    std::uint32_t bus = 0;
    std::uint32_t dev = 0;
    if (!take_digits(text, 2, bus) || !take(text, ':') || !take_digits(text, 2, dev)) {
        return false;
    }
    request.bus = static_cast<std::uint8_t>(bus);
    request.dev = static_cast<std::uint8_t>(dev);
    return take(text, '.') && take(text, '0') && *text == 0;
}

bool parse_sum(const CHAR16* text, QFU_SHA256::Sum& sum) {
    for (std::uint8_t& byte : sum) {
        const std::uint32_t high = digit(*text);
        const std::uint32_t low = high < 16 ? digit(text[1]) : 16;
        if (low == 16) {
            return false;
        }
        byte = static_cast<std::uint8_t>(high << 4 | low);
        text += 2;
    }
    return *text == 0;
}

bool parse_name(const CHAR16* text, platform::FileName& name) {
    std::size_t length = 0;
    for (; text[length] != 0; ++length) {
        if (length + 1 == platform::FileName::CAPACITY) {
            return false;
        }
        name.text[length] = text[length];
    }
    name.text[length] = 0;
    return length > 0;
}

bool parse_within(const CHAR16* text, std::uint32_t least, std::uint32_t most,
                  std::uint32_t& number) {
    return parse_number(text, number) && number >= least && number <= most;
}

/// Reads the value of an option. @returns what is allowed when it is anything else, or ""
std::string_view parse_value(std::uint32_t option, const CHAR16* value, Request& request) {
    constexpr std::string_view NUMBER = "a number such as 4096 or 0x1000";
    switch (option) {
    case ADDRESS:
        return parse_number(value, request.address) ? "" : NUMBER;
    case SIZE:
        return parse_within(value, 1, UINT32_MAX, request.size)
                   ? ""
                   : "1 or more, such as 4096 or 0x1000";
    case ADAPTER:
        return parse_number(value, request.adapter) ? "" : "a number that \"flash list\" shows";
    case CHIP_SELECT:
        return parse_within(value, 0, 1, request.chip_select) ? "" : "0 and 1";
    case MODEL:
        if (request.has(IN_JOB) && is(value, "any")) {
            request.given |= ANY_MODEL;
            return "";
        }
        return parse_model(value, request) ? "" : "vendor and device ID such as 1e5d:c709";
    case PLACE:
        return parse_place(value, request) ? "" : "bus, device and function 0 such as 01:04.0";
    case SUM:
        return parse_sum(value, request.sum) ? "" : "64 hexadecimal digits";
    case OLD:
        return parse_name(value, request.old) ? "" : "a file name of 1 to 512 characters";
    case TIMES:
        return parse_within(value, 1, 1000, request.times) ? "" : "a number from 1 to 1000";
    case COUNT:
        return parse_within(value, 1, QFU_MAX_ADAPTERS, request.count) ? ""
                                                                       : "a number from 1 to 6";
    default:
        return "";
    }
}

const OptionRow* find_option(const CHAR16* argument) {
    for (const OptionRow& row : OPTIONS) {
        if (is(argument, row.name)) {
            return &row;
        }
    }
    return nullptr;
}

/// What a command takes. A job asks nothing, and adapters have no fixed numbers in it.
std::uint32_t options_of(const CommandRow& row, const Request& request) {
    return request.has(IN_JOB) ? (row.options | COUNT) & ~(ADAPTER | YES) : row.options;
}

/// The options of a command in one line, as "-addr A".
Text synopsis(const CommandRow& row, const Request& request = {}) {
    Text text("flash @", {row.name});
    if (!row.file.empty()) {
        text.add(" ");
        text.add("@", {row.file});
    }
    for (const OptionRow& option : OPTIONS) {
        const std::uint32_t given = options_of(row, request) & option.option;
        if ((given & CHOICE) != 0 && !request.has(IN_JOB)) {
            text.add("@", {given == ADAPTER ? " [choice]" : ""});
        } else if (given != 0) {
            text.add(" [@@@]", {option.name, option.value.empty() ? "" : " ", option.value});
        }
    }
    return text;
}

Outcome take_file(const CHAR16* argument, const CommandRow& row, Request& request) {
    if (row.file.empty() || request.has(FILE)) {
        return refused("surplus argument @; allowed: @", {argument, synopsis(row, request)});
    }
    request.given |= FILE;
    return parse_name(argument, request.file) ? Outcome{}
                                              : refused("a file name has 1 to 512 characters");
}

/// Takes an option and its value from the front of `rest`.
Outcome take_option(std::span<CHAR16* const>& rest, const CommandRow& row, Request& request) {
    const CHAR16* word = rest[0];
    const OptionRow* option = find_option(word);
    if (option == nullptr || (options_of(row, request) & option->option) == 0) {
        return refused("flash @ has no option @; allowed: @",
                       {row.name, word, synopsis(row, request)});
    }
    if (request.has(option->option)) {
        return refused("@ is given twice", {word});
    }
    request.given |= option->option;
    if (option->value.empty()) {
        return {};
    }
    if (rest.size() == 1) {
        return refused("@ needs a value: @", {word, option->value});
    }
    rest = rest.subspan(1);
    const std::string_view allowed = parse_value(option->option, rest[0], request);
    return allowed.empty() ? Outcome{}
                           : refused("@ @: not allowed; allowed: @", {word, rest[0], allowed});
}

Outcome parse_rest(std::span<CHAR16* const> rest, const CommandRow& row, Request& request) {
    for (; !rest.empty(); rest = rest.subspan(1)) {
        if (Outcome outcome = *rest[0] == '-' ? take_option(rest, row, request)
                                              : take_file(rest[0], row, request)) {
            return outcome;
        }
    }
    if (!row.file.empty() && !request.has(FILE)) {
        return refused("@ is missing; allowed: @", {row.file, synopsis(row, request)});
    }
    if ((row.options & SIZE) != 0 && request.has(ADDRESS) != request.has(SIZE)) {
        return refused("-addr and -sz go together: both or neither");
    }
    if (request.has(MODEL) && request.has(ADAPTER)) {
        return refused("-model and -adid do not go together");
    }
    return {};
}

} // namespace

std::string_view command_name(Command command) {
    return COMMANDS[static_cast<std::size_t>(command)].name;
}

bool is(const CHAR16* argument, std::string_view word) {
    for (const char c : word) {
        if (*argument++ != static_cast<CHAR16>(c)) {
            return false;
        }
    }
    return *argument == 0;
}

bool parse_number(const CHAR16* text, std::uint32_t& number) {
    std::uint32_t base = 10;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text += 2;
    }
    std::uint64_t value = 0;
    const CHAR16* p = text;
    for (; digit(*p) < base; ++p) {
        value = value * base + digit(*p);
        if (value > UINT32_MAX) {
            return false;
        }
    }
    number = static_cast<std::uint32_t>(value);
    return p != text && *p == 0;
}

Parsed parse(std::span<CHAR16* const> arguments, Request& request) {
    if (arguments.empty() || is(arguments[0], "-h")) {
        return Parsed::HELP;
    }
    if (is(arguments[0], "--version") && arguments.size() == 1) {
        return Parsed::VERSION;
    }
    const CommandRow* row = nullptr;
    for (const CommandRow& candidate : COMMANDS) {
        if (is(arguments[0], candidate.name)) {
            row = &candidate;
        }
    }
    if (row == nullptr) {
        refused("unknown command @; allowed:", {arguments[0]});
        for (const CommandRow& candidate : COMMANDS) {
            reason().add(" @", {candidate.name});
        }
        return Parsed::REFUSED;
    }
    request.command = static_cast<Command>(row - COMMANDS);
    if (arguments.size() == 2 && is(arguments[1], "-h")) {
        return Parsed::COMMAND_HELP;
    }
    return parse_rest(arguments.subspan(1), *row, request) ? Parsed::REFUSED : Parsed::REQUEST;
}

void print_help() {
    say("flash writes the flash chips of storage adapters and proves the result.\n\n");
    for (const CommandRow& row : COMMANDS) {
        say("  @\n", {synopsis(row)});
    }
    say("\nchoice: [-adid N] [-csid N] [-model V:D] [-at B:D.F]\nflash COMMAND -h shows what a "
        "command does.\nExit status: 0 done or held, 1 failed, "
        "2 nothing was changed and nothing was proved.\n");
}

void print_help(Command command) {
    const CommandRow& row = COMMANDS[static_cast<std::size_t>(command)];
    say("@\n@", {synopsis(row), row.does});
    for (const OptionRow& option : OPTIONS) {
        if ((row.options & option.option) != 0) {
            say("  @@@: @\n",
                {option.name, option.value.empty() ? "" : " ", option.value, option.does});
        }
    }
}

} // namespace flash
