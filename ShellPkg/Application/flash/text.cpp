#include "text.h"

#include "qfu/platform/terminal.h"

namespace flash {

Text::Text(const char* format, std::initializer_list<Part> parts) {
    add(format, parts);
}

void Text::put(CHAR16 c) {
    if (length_ < text_.size()) {
        text_[length_++] = c;
    }
}

void Text::put_digits(std::uint64_t value, std::uint32_t base, std::size_t width) {
    std::array<char, 20> digits{}; // last digit first
    std::size_t count = 0;
    while (value != 0 || count < width) {
        digits[count++] = "0123456789abcdef"[value % base];
        value /= base;
    }
    while (count > 0) {
        put(static_cast<CHAR16>(digits[--count]));
    }
}

void Text::put_ascii(char c) {
    if (c == '\n') {
        put('\r');
    }
    put(static_cast<unsigned char>(c));
}

void Text::put_hex(std::uint64_t number) {
    put('0');
    put('x');
    put_digits(number, 16, 1);
}

void Text::put_part(const Part& part) {
    switch (part.kind_) {
    case Part::Kind::TEXT:
        for (const auto* c = static_cast<const char*>(part.at_); *c != 0; ++c) {
            put_ascii(*c);
        }
        break;
    case Part::Kind::VIEW:
        for (std::uint32_t i = 0; i < part.width_; ++i) {
            put_ascii(static_cast<const char*>(part.at_)[i]);
        }
        break;
    case Part::Kind::WIDE_TEXT:
        for (const auto* c = static_cast<const CHAR16*>(part.at_); *c != 0; ++c) {
            put(*c);
        }
        break;
    case Part::Kind::SUM:
        for (std::size_t i = 0; i < sizeof(QFU_SHA256::Sum); ++i) {
            put_digits(static_cast<const std::uint8_t*>(part.at_)[i], 16, 2);
        }
        break;
    case Part::Kind::OTHER:
        for (const CHAR16 c : static_cast<const Text*>(part.at_)->characters()) {
            put(c);
        }
        break;
    case Part::Kind::RANGE: {
        const auto& range = *static_cast<const Addresses*>(part.at_);
        put_hex(range.first);
        for (const char c : {' ', 't', 'o', ' '}) {
            put_ascii(c);
        }
        put_hex(range.end - 1);
        break;
    }
    case Part::Kind::HEX:
        put_hex(part.number_);
        break;
    case Part::Kind::DIGITS:
        put_digits(part.number_, 16, part.width_);
        break;
    case Part::Kind::DECIMAL:
        put_digits(part.number_, 10, 1);
        break;
    }
}

void Text::add(const char* format, std::initializer_list<Part> parts) {
    const Part* next = parts.begin();
    for (; *format != 0; ++format) {
        if (*format == '@' && next != parts.end()) {
            put_part(*next++);
        } else {
            put_ascii(*format);
        }
    }
}

void say(const char* format, std::initializer_list<Part> parts) {
    print(Text(format, parts));
}

void print(const Text& text) {
    std::span<const CHAR16> rest = text.characters();
    while (!rest.empty()) {
        std::array<CHAR16, platform::PRINT_LIMIT + 1> piece{};
        std::size_t count = 0;
        while (count < platform::PRINT_LIMIT && count < rest.size()) {
            piece[count] = rest[count];
            ++count;
        }
        platform::print(piece.data());
        rest = rest.subspan(count);
    }
}

Progress::~Progress() {
    if (shown_ != 0) {
        say("\n");
    }
}

void Progress::step(std::uint64_t address, std::uint64_t bytes) {
    const std::uint64_t percent = done_ * 100 / total_;
    constexpr std::uint64_t LEAST_STEP = 10;
    constexpr std::uint64_t LEAST_TOTAL = 0x4000; // less is done before anybody has read it
    if (total_ > LEAST_TOTAL && percent >= shown_ + LEAST_STEP) {
        say("\r@ @ % at @      ", {what_, percent, Hex(address)});
        shown_ = percent;
    }
    done_ += bytes;
}

} // namespace flash
