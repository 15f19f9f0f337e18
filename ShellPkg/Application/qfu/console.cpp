#include "console.h"

#include "bounds.h"
#include "platform/pool.h"

constinit bool qfu_page_mode = false;
constinit QFU_PRINTER qfu_printer = nullptr;
constinit std::uint32_t qfu_page_lines = 0;

namespace {

constexpr std::int32_t NOT_GIVEN = -1;

/// Writes characters into a buffer as long as they and a terminating zero fit.
class Writer {
  public:
    explicit Writer(std::span<char> buffer) : buffer_(buffer) { terminate(); }

    void put(char c) {
        if (room() > 0) {
            buffer_[length_++] = c;
            terminate();
        }
    }
    void put(char c, std::size_t times) {
        for (std::size_t left = qfu_smaller(times, room()); left > 0; --left) {
            put(c);
        }
    }
    std::span<char> rest() const { return buffer_.subspan(length_); }
    void advance(std::size_t count) { length_ += count; }
    std::size_t length() const { return length_; }

  private:
    std::size_t room() const { return buffer_.empty() ? 0 : buffer_.size() - 1 - length_; }
    void terminate() {
        if (!buffer_.empty()) {
            buffer_[length_] = 0;
        }
    }

    std::span<char> buffer_;
    std::size_t length_ = 0;
};

/// The arguments not yet taken.
class Arguments {
  public:
    explicit Arguments(std::span<const QFU_FORMAT_ARGUMENT> list) : list_(list) {}

    std::uint64_t number() { return next().number(); }
    std::int32_t int32() { return static_cast<std::int32_t>(number()); }
    const char* text() { return next().text(); }
    std::uint32_t* counter() { return next().counter(); }

  private:
    QFU_FORMAT_ARGUMENT next() {
        if (list_.empty()) {
            return {0};
        }
        const QFU_FORMAT_ARGUMENT first = list_.front();
        list_ = list_.subspan(1);
        return first;
    }

    std::span<const QFU_FORMAT_ARGUMENT> list_;
};

/// One conversion of a format, from behind its "%".
struct Conversion {
    QFU_NUMBER_FLAGS flags;
    std::int32_t width;
    std::int32_t precision;
    char qualifier;
    char letter; ///< 0 when the format ended before it
};

std::int32_t parse_count(const char*& p) {
    // Nothing wider than a text fits its buffer, so larger numbers need no exact value.
    constexpr std::int32_t LARGE = 1'000'000;
    std::int32_t count = 0;
    for (; qfu_is_digit(*p); ++p) {
        count = qfu_smaller(count * 10 + (*p - '0'), LARGE);
    }
    return count;
}

void parse_flags(const char*& p, QFU_NUMBER_FLAGS& flags) {
    for (;; ++p) {
        switch (*p) {
        case '-':
            flags.left = true;
            break;
        case '+':
            flags.plus = true;
            break;
        case ' ':
            flags.space = true;
            break;
        case '#':
            flags.alternate = true;
            break;
        case '0':
            flags.zero_padding = true;
            break;
        default:
            return;
        }
    }
}

void parse_width(const char*& p, Arguments& arguments, Conversion& c) {
    if (qfu_is_digit(*p)) {
        c.width = parse_count(p);
    } else if (*p == '*') {
        ++p;
        c.width = arguments.int32();
        if (c.width < 0) {
            c.flags.left = true;
            c.width = c.width == INT32_MIN ? INT32_MAX : -c.width;
        }
    }
}

void parse_precision(const char*& p, Arguments& arguments, Conversion& c) {
    if (*p != '.') {
        return;
    }
    ++p;
    if (*p == '*') {
        ++p;
        c.precision = qfu_larger(arguments.int32(), 0);
    } else {
        c.precision = parse_count(p);
    }
}

/// Leaves `p` behind the conversion.
Conversion parse_conversion(const char*& p, Arguments& arguments) {
    Conversion c{{}, NOT_GIVEN, NOT_GIVEN, 0, 0};
    parse_flags(p, c.flags);
    parse_width(p, arguments, c);
    parse_precision(p, arguments, c);
    if (*p == 'h' || *p == 'l' || *p == 'q') {
        c.qualifier = *p++;
    }
    c.letter = *p;
    if (*p != 0) {
        ++p;
    }
    return c;
}

std::size_t columns(std::int32_t count) {
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

std::size_t padding(std::int32_t width, std::size_t used) {
    return columns(width) > used ? columns(width) - used : 0;
}

void put_text(Writer& out, const Conversion& c, const char* text) {
    if (text == nullptr) {
        text = "<NULL>";
    }
    std::size_t length = 0;
    while (text[length] != 0 && (c.precision == NOT_GIVEN || length < columns(c.precision))) {
        ++length;
    }
    const std::size_t pad = padding(c.width, length);
    out.put(' ', c.flags.left ? 0 : pad);
    for (std::size_t i = 0; i < length; ++i) {
        out.put(text[i]);
    }
    out.put(' ', c.flags.left ? pad : 0);
}

void put_character(Writer& out, const Conversion& c, char character) {
    const std::size_t pad = padding(c.width, 1);
    out.put(' ', c.flags.left ? 0 : pad);
    out.put(character);
    out.put(' ', c.flags.left ? pad : 0);
}

void put_number(Writer& out, const Conversion& c, std::uint64_t value, std::uint32_t base) {
    out.advance(qfu_format_number(out.rest(), value, base, c.width, c.precision, c.flags));
}

void put_pointer(Writer& out, Conversion c, std::uint64_t value) {
    if (c.width == NOT_GIVEN) {
        c.width = 2 * sizeof(void*);
        c.flags.zero_padding = true;
    }
    put_number(out, c, value, 16);
}

std::uint64_t signed_argument(const Conversion& c, Arguments& arguments) {
    const std::int32_t value = arguments.int32();
    return static_cast<std::uint64_t>(c.qualifier == 'h' ? static_cast<std::int16_t>(value)
                                                         : value);
}

std::uint64_t unsigned_argument(const Conversion& c, Arguments& arguments) {
    const std::uint64_t value = arguments.number();
    return c.qualifier == 'h' ? value & 0xFFFF : value & 0xFFFFFFFF;
}

void convert(Writer& out, Conversion c, Arguments& arguments) {
    switch (c.letter) {
    case 'c':
        put_character(out, c, static_cast<char>(arguments.number() & 0xFF));
        break;
    case 's':
        put_text(out, c, arguments.text());
        break;
    case 'p':
        put_pointer(out, c, arguments.number());
        break;
    case 'n':
        if (std::uint32_t* counter = arguments.counter()) {
            *counter = static_cast<std::uint32_t>(out.length());
        }
        break;
    case 'd':
    case 'i':
        c.flags.is_signed = true;
        put_number(out, c, signed_argument(c, arguments), 10);
        break;
    case 'u':
        put_number(out, c, unsigned_argument(c, arguments), 10);
        break;
    case 'o':
        put_number(out, c, unsigned_argument(c, arguments), 8);
        break;
    case 'X':
        c.flags.capitals = true;
        [[fallthrough]];
    case 'x':
        put_number(out, c, unsigned_argument(c, arguments), 16);
        break;
    default:
        out.put('%');
        if (c.letter != 0 && c.letter != '%') {
            out.put(c.letter);
        }
        break;
    }
}

/// The three working buffers of one print, in the order in which they are taken.
struct PrintBuffers {
    platform::Pool<char> text;
    platform::Pool<CHAR16> unicode;
    platform::Pool<char> work;

    /// Without memory it prints which buffer is missing, past the formatter that needs them all.
    bool take() {
        text = platform::Pool<char>(QFU_TEXT_SIZE);
        if (!text) {
            platform::print("*str_buffer==> resource is not enough.\n");
            return false;
        }
        unicode = platform::Pool<CHAR16>(QFU_TEXT_SIZE);
        if (!unicode) {
            platform::print("*unicode_str_buffer==> resource is not enough.\n");
            return false;
        }
        work = platform::Pool<char>(QFU_TEXT_SIZE);
        if (!work) {
            platform::print("*tmp_buffer==> resource is not enough.\n");
            return false;
        }
        return true;
    }
};

/// Widens `count` characters into `unicode` and hands them to the console in one call.
void hand_over(const char* text, std::size_t count, CHAR16* unicode) {
    for (std::size_t i = 0; i < count; ++i) {
        unicode[i] = static_cast<unsigned char>(text[i]);
    }
    unicode[count] = 0;
    platform::print("%s", {unicode});
}

/// Characters of the next piece of a page: up to and including a line feed, 80 at most.
std::size_t piece_length(const char* text) {
    std::size_t length = 0;
    while (text[length] != 0 && length < QFU_PAGE_COLUMNS) {
        if (text[length++] == '\n') {
            break;
        }
    }
    return length;
}

void print_paged(const char* text, CHAR16* unicode) {
    while (*text != 0) {
        const std::size_t length = piece_length(text);
        const bool line_end = text[length - 1] == '\n';
        if (!line_end && length < QFU_PAGE_COLUMNS) {
            hand_over(text, length, unicode);
            return;
        }
        const bool page_end = qfu_page_lines + 1 >= QFU_PAGE_LINES;
        // The last line of a page keeps the cursor until the key has come.
        hand_over(text, page_end && line_end ? length - 1 : length, unicode);
        ++qfu_page_lines;
        if (page_end) {
            qfu_page_lines = 0;
            QFU_KEY any{};
            qfu_read_key(true, any);
            hand_over("\n", 1, unicode);
        }
        text += length;
    }
}

/// Copies `text`, a carriage return before every line feed; an end that does not fit is cut.
void add_carriage_returns(const char* text, std::span<char> out) {
    Writer writer(out);
    for (; *text != 0; ++text) {
        if (*text == '\n') {
            writer.put('\r');
        }
        writer.put(*text);
    }
}

bool is_printable(std::uint8_t byte) {
    return byte >= 0x14 && byte <= 0x7F;
}

} // namespace

std::size_t qfu_format_number(std::span<char> buffer, std::uint64_t value, std::uint32_t base,
                              std::int32_t width, std::int32_t precision, QFU_NUMBER_FLAGS flags) {
    auto magnitude = static_cast<std::uint32_t>(value);
    char sign = 0;
    if (flags.is_signed) {
        if (static_cast<std::int32_t>(magnitude) < 0) {
            sign = '-';
            magnitude = 0 - magnitude;
        } else if (flags.plus) {
            sign = '+';
        } else if (flags.space) {
            sign = ' ';
        }
    }
    const std::size_t prefix = !flags.alternate ? 0 : base == 16 ? 2 : base == 8 ? 1 : 0;

    const char* alphabet = flags.capitals ? "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                          : "0123456789abcdefghijklmnopqrstuvwxyz";
    std::array<char, 32> digits{}; // last digit first
    std::size_t count = 0;
    do {
        digits[count++] = alphabet[magnitude % base];
        magnitude /= base;
    } while (magnitude != 0);
    const std::size_t zeros = padding(precision, count);
    const std::size_t pad = padding(width, (sign != 0 ? 1U : 0U) + prefix + count + zeros);

    Writer out(buffer);
    const bool zero_padding = flags.zero_padding && !flags.left;
    out.put(' ', zero_padding || flags.left ? 0 : pad);
    if (sign != 0) {
        out.put(sign);
    }
    if (prefix > 0) {
        out.put('0');
    }
    if (prefix > 1) {
        out.put(flags.capitals ? 'X' : 'x');
    }
    out.put('0', zero_padding ? pad : 0);
    out.put('0', zeros);
    while (count > 0) {
        out.put(digits[--count]);
    }
    out.put(' ', flags.left ? pad : 0);
    return out.length();
}

std::size_t qfu_format(std::span<char> buffer, const char* format,
                       std::span<const QFU_FORMAT_ARGUMENT> arguments) {
    Writer out(buffer);
    Arguments rest(arguments);
    for (const char* p = format; *p != 0;) {
        if (*p != '%') {
            out.put(*p++);
            continue;
        }
        ++p;
        convert(out, parse_conversion(p, rest), rest);
    }
    return out.length();
}

int qfu_print_to_console(const char* format, std::span<const QFU_FORMAT_ARGUMENT> arguments) {
    PrintBuffers buffers;
    if (!buffers.take()) {
        return -1;
    }
    const std::size_t length = qfu_format({buffers.text.get(), QFU_TEXT_SIZE}, format, arguments);
    add_carriage_returns(buffers.text.get(), {buffers.work.get(), QFU_TEXT_SIZE});
    const char* work = buffers.work.get();
    if (qfu_page_mode) {
        print_paged(work, buffers.unicode.get());
    } else {
        std::size_t count = 0;
        while (work[count] != 0) {
            ++count;
        }
        hand_over(work, count, buffers.unicode.get());
    }
    return static_cast<int>(length);
}

bool qfu_read_key(bool wait, QFU_KEY& key) {
    constexpr int SLICES = 11; // of one millisecond
    do {
        for (int slice = 0; slice < SLICES; ++slice) {
            if (platform::wait_for_key_1ms() != platform::KeyWait::TIMER) {
                break;
            }
        }
        if (platform::take_key(key)) {
            return true;
        }
    } while (wait);
    return false;
}

int qfu_hex_dump(std::span<const std::uint8_t> bytes) {
    constexpr std::size_t ROW = 16;
    qfu_print("              00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 0123456789ABCDEF\n");
    for (std::size_t offset = 0; offset < bytes.size(); offset += ROW) {
        const auto row = bytes.subspan(offset, qfu_smaller(ROW, bytes.size() - offset));
        qfu_print("0x%08lX    ", offset);
        for (std::size_t column = 0; column < ROW; ++column) {
            if (column < row.size()) {
                qfu_print("%02X ", row[column]);
            } else {
                qfu_print("   ");
            }
        }
        for (const std::uint8_t byte : row) {
            if (is_printable(byte)) {
                qfu_print("%c", byte);
            } else {
                qfu_print(".");
            }
        }
        qfu_print("\n");
    }
    return 0;
}
