#include "cmdline.h"

#include "console.h"
#include "context.h"
#include "file_io.h"
#include "help.h"
#include "spi_list.h"

#include <array>
#include <string_view>

namespace {

/// The arguments of a run.
struct CommandLine {
    std::uint32_t count;
    const char* const* argv;

    bool has(const char* option) const { return qfu_find_option(count, argv, option) != 0; }

    /// The argument after the one at `position`; null when the command line ends there.
    const char* value_after(std::uint32_t position) const {
        return position + 1 < count ? argv[position + 1] : nullptr;
    }
};

/// -1 for a character that is no hexadecimal digit.
int hex_digit(char c) {
    if (qfu_is_digit(c)) {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

bool has_hex_prefix(const char* text) {
    return text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

/// Options without a value, in the order in which they take effect, and the flag that each sets.
struct Switch {
    const char* name;
    std::uint32_t flag;
};
constexpr Switch PHY_SWITCHES[] = {
    {"-phytest", QFU_REQ_PHYTEST     },
    {"-lback",   QFU_REQ_PHY_LOOPBACK},
    {"-erctn",   QFU_REQ_PHY_ERCTN   },
};
constexpr Switch SWITCHES[] = {
    {"-l", QFU_REQ_LIST},
    {"-y", QFU_REQ_YES },
};

/// How a value is written. A prefix is "0x" or "0X".
enum class Syntax : std::uint8_t {
    DECIMAL, ///< decimal digits, no prefix
    HEX,     ///< hexadecimal digits, with or without prefix
    NUMBER,  ///< hexadecimal with prefix, decimal without
};

/// The messages for a value that is not as it should be, with and without prefix.
struct ValueMessages {
    const char* prefixed;
    const char* plain;
};

/// A value as long as this is refused: no number that means something needs as many digits.
constexpr std::size_t VALUE_LIMIT = 24;

/// Converts the value of an option. Prints `messages` with the whole value when it is missing, too
/// long or not of its syntax. @returns false after a message
bool parse_value(const char* value, Syntax syntax, ValueMessages messages, std::uint32_t& out) {
    const bool prefixed = value != nullptr && syntax != Syntax::DECIMAL && has_hex_prefix(value);
    const bool hex = prefixed || syntax == Syntax::HEX;
    const char* digits = prefixed ? value + 2 : value;
    if (value == nullptr || std::string_view(value).size() >= VALUE_LIMIT ||
        !(hex ? qfu_is_hex(digits) : qfu_is_decimal(digits))) {
        qfu_print(prefixed ? messages.prefixed : messages.plain, value);
        return false;
    }
    out = hex ? qfu_parse_hex(digits) : qfu_parse_decimal(digits);
    return true;
}

/// An option whose value is a number that is stored as it is.
template <class Field>
struct NumberOption {
    const char* name;
    Syntax syntax;
    ValueMessages messages;
    std::uint32_t flag;
    Field QFU_CONTEXT::*field;
};

/// Applies the option if it is given; the field keeps the value's low bits. @returns false on an
/// error
template <class Field>
bool parse_option(const CommandLine& line, const NumberOption<Field>& option,
                  QFU_CONTEXT& context) {
    const std::uint32_t position = qfu_find_option(line.count, line.argv, option.name);
    if (position == 0) {
        return true;
    }
    std::uint32_t value = 0;
    if (!parse_value(line.value_after(position), option.syntax, option.messages, value)) {
        return false;
    }
    context.flags |= option.flag;
    context.*option.field = static_cast<Field>(value);
    return true;
}

/// An option whose value is a decimal number or "ALL", which stands for number 0 and a flag.
struct SelectorOption {
    NumberOption<std::uint16_t> number;
    std::uint32_t all_flag;
};

bool parse_option(const CommandLine& line, const SelectorOption& option, QFU_CONTEXT& context) {
    const std::uint32_t position = qfu_find_option(line.count, line.argv, option.number.name);
    const char* value = position == 0 ? nullptr : line.value_after(position);
    if (value != nullptr && std::string_view(value) == "ALL") {
        context.flags |= option.all_flag | option.number.flag;
        context.*option.number.field = 0;
        return true;
    }
    return parse_option(line, option.number, context);
}

constexpr ValueMessages same_message(const char* message) {
    return {message, message};
}

constexpr SelectorOption PHY_PORT = {
    {"-p", Syntax::DECIMAL, same_message("The Port ID isn't a Dec(%s).\n"), QFU_REQ_PHY_PORT,
     &QFU_CONTEXT::phy_port},
    QFU_REQ_PHY_PORT_ALL,
};
constexpr NumberOption<std::uint16_t> PHY_RATE = {"-r", Syntax::DECIMAL,
                                                  same_message("The phy rate isn't a Dec(%s).\n"),
                                                  QFU_REQ_PHY_RATE, &QFU_CONTEXT::phy_rate};
constexpr NumberOption<std::uint16_t> PHY_TIME = {
    "-t",
    Syntax::NUMBER,
    {"The time isn't a Hex(%s).\n", "The time isn't a Dec(%s).\n"},
    QFU_REQ_PHY_TIME,
    &QFU_CONTEXT::phy_time
};
constexpr SelectorOption ADAPTER = {
    {"-adid", Syntax::DECIMAL, same_message("The Adapter ID isn't a Dec(%s).\n"), QFU_REQ_ADAPTER,
     &QFU_CONTEXT::adapter_id},
    QFU_REQ_ADAPTER_ALL,
};
constexpr NumberOption<std::uint16_t> VENDOR = {
    "-cvid",
    Syntax::HEX,
    {"The Vendor ID isn't a Hex(%s).\n", "*The Vendor ID isn't a Hex(%s).\n"},
    QFU_REQ_VENDOR,
    &QFU_CONTEXT::vendor_filter
};
constexpr NumberOption<std::uint16_t> DEVICE = {
    "-cdid",
    Syntax::HEX,
    {"The Device ID isn't a Hex(%s).\n", "*The Device ID isn't a Hex(%s).\n"},
    QFU_REQ_DEVICE,
    &QFU_CONTEXT::device_filter
};
constexpr NumberOption<std::uint16_t> CHIP_SELECT = {
    "-csid",
    Syntax::HEX,
    {"The CS ID isn't a Hex(%s).\n", "*The CS ID isn't a Hex(%s).\n"},
    QFU_REQ_CHIP_SELECT,
    &QFU_CONTEXT::chip_select
};
constexpr NumberOption<std::uint32_t> ADDRESS = {
    "-addr",
    Syntax::NUMBER,
    {"The address value isn't a Hex(%s).\n", "The address value isn't a Dec(%s).\n"},
    QFU_REQ_ADDRESS,
    &QFU_CONTEXT::address
};
constexpr NumberOption<std::uint32_t> SIZE = {
    "-sz",
    Syntax::NUMBER,
    {"The size value isn't a Hex(%s).\n", "The size value isn't a Dec(%s).\n"},
    QFU_REQ_SIZE,
    &QFU_CONTEXT::size
};

/// Words of `-n`; a pattern's code is its position.
constexpr std::array<std::string_view, 21> PHY_PATTERNS = {
    "jitp0", "ltdp",  "htdp",  "lfscp", "ssop",   "lftp",   "mftp",
    "hftp",  "lbp",   "prbs7", "lfsr",  "nlbp",   "nccp",   "jitp1",
    "jitp2", "jitp3", "jitp4", "prbs9", "prbs15", "prbs23", "prbs31",
};

bool parse_pattern(const CommandLine& line, QFU_CONTEXT& context) {
    const std::uint32_t position = qfu_find_option(line.count, line.argv, "-n");
    if (position == 0) {
        return true;
    }
    const char* word = line.value_after(position);
    for (std::size_t code = 0; word != nullptr && code < PHY_PATTERNS.size(); ++code) {
        if (PHY_PATTERNS[code] == word) {
            context.phy_pattern = static_cast<std::uint16_t>(code);
            context.flags |= QFU_REQ_PHY_PATTERN;
            return true;
        }
    }
    qfu_print("Invalid pattern select, should be jitp0, jitp1, jitp2, jitp3, jitp4, prbs7, prbs9, "
              "prbs15, prbs23, prbs31, lfsr, ltdp, htdp, lfscp, ssop, nlbp, nccp, lftp, mftp, "
              "hftp, lbp.\n");
    return false;
}

bool parse_chip_select(const CommandLine& line, QFU_CONTEXT& context) {
    if (!parse_option(line, CHIP_SELECT, context)) {
        return false;
    }
    if (context.has(QFU_REQ_CHIP_SELECT) &&
        context.chip_select >= context.adapters[0].slot.size()) {
        qfu_print("No supported this ID(%d) at -csid item.\n", context.chip_select);
        return false;
    }
    return true;
}

template <std::size_t N>
void parse_switches(const CommandLine& line, const Switch (&switches)[N], QFU_CONTEXT& context) {
    for (const Switch& s : switches) {
        if (line.has(s.name)) {
            context.flags |= s.flag;
        }
    }
}

/// The whole-chip erase wins over the range erase.
void parse_erase(const CommandLine& line, QFU_CONTEXT& context) {
    if (line.has("-wpa")) {
        context.flags |= QFU_REQ_WIPE;
    } else if (line.has("-se")) {
        context.flags |= QFU_REQ_SECTOR_ERASE;
    }
}

/// Options that open a file; the first that is given is the request's only one.
struct FileOption {
    const char* name;
    std::uint32_t mode;
    const char* access;
    const char* message;
};
constexpr FileOption FILE_OPTIONS[] = {
    {"-wbf",     QFU_FILE_MODE_IMAGE,  "r", "-if:The %s file can't open.\n"},
    {"-rfb",     QFU_FILE_MODE_DUMP,   "w", ">>The %s file can't open.\n"  },
    {"-getparm", QFU_FILE_MODE_SCRIPT, "w", ">>The %s file can't open.\n"  },
};

void measure_image(const char* name, QFU_CONTEXT& context) {
    qfu_fseek(context.file, QFU_SEEK::END);
    context.file_size = qfu_fsize(context.file);
    qfu_fseek(context.file, QFU_SEEK::START);
    qfu_print(">>The file name is %s and its size is %ld.\n", name, context.file_size);
}

bool open_file(const CommandLine& line, QFU_CONTEXT& context) {
    context.file_mode = 0;
    for (const FileOption& option : FILE_OPTIONS) {
        const std::uint32_t position = qfu_find_option(line.count, line.argv, option.name);
        if (position == 0) {
            continue;
        }
        const char* name = line.value_after(position);
        if (name != nullptr) {
            context.file = qfu_fopen(name, option.access);
        }
        if (!context.file) {
            qfu_print(option.message, name);
            return false;
        }
        if (option.mode == QFU_FILE_MODE_IMAGE) {
            measure_image(name, context);
        }
        context.file_mode = option.mode;
        return true;
    }
    return true;
}

/// True when a help option is the only argument, or the only one beside the paging option.
bool asks_for_help_alone(const CommandLine& line) {
    return line.count == 2 || (line.count == 3 && qfu_page_mode);
}

} // namespace

EFI_STATUS qfu_parse_command_line(QFU_CONTEXT* context, std::uint32_t count,
                                  const char* const* argv) {
    if (context == nullptr) {
        return EFI_ABORTED;
    }
    const CommandLine line{count, argv};
    context->flags = 0;
    context->address = 0;
    context->size = 0;
    if (line.has("-cmds")) {
        qfu_print_command_list();
        return EFI_UNSUPPORTED;
    }
    if (line.has("-bp")) {
        qfu_page_mode = true;
    }
    const bool help = line.has("-help") || line.has("-?") || line.has("-h");
    if (help && asks_for_help_alone(line)) {
        qfu_print_help();
        return EFI_UNSUPPORTED;
    }
    context->argc = count;
    context->argv = argv;
    if (help) {
        context->flags = QFU_REQ_HELP;
    }
    parse_switches(line, PHY_SWITCHES, *context);
    if (!parse_option(line, PHY_PORT, *context) || !parse_option(line, PHY_RATE, *context) ||
        !parse_pattern(line, *context) || !parse_option(line, PHY_TIME, *context)) {
        return EFI_INVALID_PARAMETER;
    }
    parse_switches(line, SWITCHES, *context);
    parse_erase(line, *context);
    if (!parse_option(line, ADAPTER, *context) || !parse_option(line, VENDOR, *context) ||
        !parse_option(line, DEVICE, *context) || !parse_chip_select(line, *context) ||
        !parse_option(line, ADDRESS, *context) || !parse_option(line, SIZE, *context) ||
        !open_file(line, *context)) {
        return EFI_INVALID_PARAMETER;
    }
    return qfu_chiplist_load(*context);
}

std::uint32_t qfu_find_option(std::uint32_t count, const char* const* argv, const char* name) {
    const std::string_view wanted = name;
    for (std::uint32_t i = 1; i < count && argv[i] != nullptr; ++i) {
        if (wanted == argv[i]) {
            return i;
        }
    }
    return 0;
}

bool qfu_is_decimal(const char* text) {
    while (qfu_is_digit(*text)) {
        ++text;
    }
    return *text == 0;
}

bool qfu_is_hex(const char* text) {
    while (hex_digit(*text) >= 0) {
        ++text;
    }
    return *text == 0;
}

std::uint32_t qfu_parse_decimal(const char* text) {
    std::uint32_t value = 0;
    for (; qfu_is_digit(*text); ++text) {
        value = value * 10 + static_cast<std::uint32_t>(*text - '0');
    }
    return value;
}

std::uint32_t qfu_parse_hex(const char* text) {
    std::uint32_t value = 0;
    for (; hex_digit(*text) >= 0; ++text) {
        value = value << 4 | static_cast<std::uint32_t>(hex_digit(*text));
    }
    return value;
}
