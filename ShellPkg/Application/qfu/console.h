// Messages to the console, with the program's own formatter and paging, and keys from it.
#pragma once

#include "platform/terminal.h"

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>

/// One page: 24 pieces, each a line or 80 characters of one.
inline constexpr std::uint32_t QFU_PAGE_LINES = 24;
inline constexpr std::size_t QFU_PAGE_COLUMNS = 80;

/// Bytes that a formatted text has room in, its terminating zero included.
inline constexpr std::size_t QFU_TEXT_SIZE = 1024;

/// Stops after every page of output until a key comes. Off until the command line turns it on.
extern bool qfu_page_mode;

/// Pieces printed since the last pause, over all calls of `qfu_print`.
extern std::uint32_t qfu_page_lines;

/// True for a decimal digit.
constexpr bool qfu_is_digit(char c) {
    return c >= '0' && c <= '9';
}

/// One argument behind a format. It remembers its kind, so that a conversion that does not fit it
/// prints something harmless instead of reading a number as an address.
class QFU_FORMAT_ARGUMENT {
  public:
    template <std::integral Integer>
    constexpr QFU_FORMAT_ARGUMENT(Integer value)
        : kind_(Kind::NUMBER), number_(static_cast<std::uint64_t>(value)) {}
    constexpr QFU_FORMAT_ARGUMENT(const char* text) : kind_(Kind::TEXT), text_(text) {}
    constexpr QFU_FORMAT_ARGUMENT(std::uint32_t* counter)
        : kind_(Kind::COUNTER), counter_(counter) {}
    QFU_FORMAT_ARGUMENT(const void* address)
        : kind_(Kind::NUMBER), number_(reinterpret_cast<std::uintptr_t>(address)) {}

    constexpr std::uint64_t number() const { return kind_ == Kind::NUMBER ? number_ : 0; }
    constexpr const char* text() const { return kind_ == Kind::TEXT ? text_ : nullptr; }
    constexpr std::uint32_t* counter() const { return kind_ == Kind::COUNTER ? counter_ : nullptr; }

  private:
    enum class Kind : std::uint8_t { NUMBER, TEXT, COUNTER };

    Kind kind_;
    union {
        std::uint64_t number_;
        const char* text_;
        std::uint32_t* counter_;
    };
};

/// How `qfu_format_number` writes a number.
struct QFU_NUMBER_FLAGS {
    bool zero_padding;
    bool is_signed;
    bool plus;
    bool space;
    bool left;
    bool alternate;
    bool capitals;
};

/// Writes the low 32 bits of `value` in `base` (2 to 36) and a terminating zero into `buffer`; what
/// does not fit is cut.
/// @param width      columns at least; -1 for none
/// @param precision  digits at least; -1 for none
/// @returns the number of characters written, terminator not counted
std::size_t qfu_format_number(std::span<char> buffer, std::uint64_t value, std::uint32_t base,
                              std::int32_t width, std::int32_t precision, QFU_NUMBER_FLAGS flags);

/// Writes the formatted text and a terminating zero into `buffer`; what does not fit is cut.
/// Conversions are those of printf, but integers are 32 bits wide whatever their qualifier ("h":
/// 16). A conversion without an argument left takes 0 or no text.
/// @returns the number of characters written, terminator not counted
std::size_t qfu_format(std::span<char> buffer, const char* format,
                       std::span<const QFU_FORMAT_ARGUMENT> arguments);

/// Prints a formatted message on the console, for `qfu_print`.
int qfu_print_to_console(const char* format, std::span<const QFU_FORMAT_ARGUMENT> arguments);

/// Where `qfu_print` prints. While it is null, messages are dropped: that is for callers of the
/// drivers who report in their own words.
using QFU_PRINTER = int (*)(const char* format, std::span<const QFU_FORMAT_ARGUMENT> arguments);
extern QFU_PRINTER qfu_printer;

/// Prints a formatted message: adds a carriage return before every line feed and pauses between
/// pages when `qfu_page_mode` is on. A text longer than QFU_TEXT_SIZE - 1 characters is cut.
/// @returns the length of the formatted text before carriage returns, or -1 without memory
template <class... Arguments>
int qfu_print(const char* format, const Arguments&... arguments) {
    const std::array<QFU_FORMAT_ARGUMENT, sizeof...(Arguments)> list{
        QFU_FORMAT_ARGUMENT(arguments)...};
    return qfu_printer == nullptr ? 0 : qfu_printer(format, list);
}

using QFU_KEY = platform::Key;

/// Reads one key stroke. With `wait` on it returns only with one; with `wait` off it gives up after
/// 11 ms.
/// @returns true when a key was read
bool qfu_read_key(bool wait, QFU_KEY& key);

/// Prints `bytes` as a dump, 16 to a row, with offsets from the start of the dump.
/// @returns 0
int qfu_hex_dump(std::span<const std::uint8_t> bytes);
