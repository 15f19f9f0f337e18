// Texts for the console and for files.
#pragma once

#include "qfu/platform/files.h"
#include "qfu/sha256.h"

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

namespace flash {

/// A number as 0x and hexadecimal digits.
struct Hex {
    constexpr explicit Hex(std::uint64_t number) : value(number) {}
    std::uint64_t value;
};

/// A number as hexadecimal digits, `count` at least, without 0x.
struct Digits {
    constexpr Digits(std::uint64_t number, std::uint32_t count) : value(number), width(count) {}
    std::uint64_t value;
    std::uint32_t width;
};

/// A range of the flash.
struct Addresses {
    constexpr Addresses() = default;
    constexpr Addresses(std::uint64_t begin, std::uint64_t past) : first(begin), end(past) {}
    std::uint64_t first = 0;
    std::uint64_t end = 0; ///< one past the last
};

class Text;

/// One part of a text. It refers to what it is made of.
class Part {
  public:
    constexpr Part(const char* text) : Part(Kind::TEXT, text) {}
    constexpr Part(std::string_view text) : Part(Kind::VIEW, text.data(), text.size()) {}
    constexpr Part(const CHAR16* text) : Part(Kind::WIDE_TEXT, text) {}
    constexpr Part(const platform::FileName& name) : Part(name.text) {}
    constexpr Part(const QFU_SHA256::Sum& sum) : Part(Kind::SUM, sum.data()) {}
    constexpr Part(const Text& text) : Part(Kind::OTHER, &text) {}
    constexpr Part(const Addresses& range) : Part(Kind::RANGE, &range) {}
    constexpr Part(Hex number) : kind_(Kind::HEX), number_(number.value) {}
    constexpr Part(Digits digits)
        : kind_(Kind::DIGITS), width_(digits.width), number_(digits.value) {}
    template <std::unsigned_integral Number>
    constexpr Part(Number number) : kind_(Kind::DECIMAL), number_(number) {}

  private:
    friend class Text;
    enum class Kind : std::uint32_t {
        TEXT,
        VIEW,
        WIDE_TEXT,
        SUM,
        OTHER,
        RANGE,
        HEX,
        DIGITS,
        DECIMAL
    };

    constexpr Part(Kind kind, const void* at, std::size_t width = 0)
        : kind_(kind), width_(static_cast<std::uint32_t>(width)), at_(at) {}

    Kind kind_;
    std::uint32_t width_ = 0; ///< digits, or characters of a view
    union {
        const void* at_;
        std::uint64_t number_;
    };
};

/// A text that grows by parts. What does not fit is cut.
class Text {
  public:
    /// Room for a sentence with two of the longest file names.
    static constexpr std::size_t CAPACITY = 1400;

    constexpr Text() = default;

    /// Puts parts in the places of the format's "@". "\n" becomes CR LF; plain numbers are decimal.
    explicit Text(const char* format, std::initializer_list<Part> parts = {});

    void add(const char* format, std::initializer_list<Part> parts = {});

    void clear() { length_ = 0; }

    std::span<const CHAR16> characters() const { return std::span(text_).first(length_); }

  private:
    void put(CHAR16 c);
    void put_digits(std::uint64_t value, std::uint32_t base, std::size_t width);
    void put_part(const Part& part);
    void put_hex(std::uint64_t number);
    void put_ascii(char c);

    std::array<CHAR16, CAPACITY> text_{}; ///< the first `length_` characters
    std::size_t length_ = 0;
};

/// Prints a text.
void print(const Text& text);

/// Prints a format with its parts.
void say(const char* format, std::initializer_list<Part> parts = {});

/// One line that shows how far a long step is. It appears in steps of more than 16 KiB.
class Progress {
  public:
    /// @param what   what is done, such as "reading"
    /// @param total  bytes of the whole step
    Progress(const char* what, std::uint64_t total) : what_(what), total_(total) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    /// Says that `bytes` more are about to be done at `address`.
    void step(std::uint64_t address, std::uint64_t bytes);

  private:
    const char* what_;
    std::uint64_t total_;
    std::uint64_t done_ = 0;
    std::uint64_t shown_ = 0; ///< percent; 0 while nothing was shown
};

} // namespace flash
