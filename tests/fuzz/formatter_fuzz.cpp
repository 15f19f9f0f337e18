// Any format with any arguments. The input's first line is the format; the size of the buffer and
// the arguments follow. Each conversion alone must give what the platform's snprintf gives, where
// both say what that is; a format must give its pieces in turn, cut where the buffer ends.
#include "bench.h"
#include "qfu/console.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <regex>

namespace {

constexpr std::size_t kLongestFormat = 256; // matching goes a level deeper for each character
constexpr std::int64_t kWidest = 300;       // the platform's would write gigabytes
constexpr std::size_t kLargest = 1024;

/// A conversion, cut out of the format.
struct Conversion {
    std::string flags;
    std::int64_t width; ///< 0: none
    std::optional<std::int64_t> precision;
    std::string qualifier;
    char letter;
    std::string text; ///< all of it

    bool has(std::string_view any) const { return flags.find_first_of(any) != flags.npos; }

    /// The same where numbers are as wide as an argument anyhow, and "*" is a number.
    std::string for_platform() const {
        return "%" + flags + (width != 0 ? std::to_string(width) : "") +
               (precision ? "." + std::to_string(*precision) : "") + (qualifier == "h" ? "h" : "") +
               letter;
    }
};

class Formatting {
  public:
    explicit Formatting(fuzz::Input input)
        : format_(input.line().substr(0, kLongestFormat)), size_(input.take<std::uint8_t>() * 4U),
          values_(input) {
        format_.resize(std::min(format_.find('\0'), format_.size()));
        arguments_.reserve(2 * format_.size());
    }

    void check() {
        for (std::size_t at = 0; at < format_.size();) {
            if (format_[at] != '%') {
                whole_ += format_[at++];
                continue;
            }
            const std::size_t first = arguments_.size();
            const Conversion conversion = parse(format_.substr(at));
            check_piece(conversion, first);
            at += conversion.text.size();
        }
        check_whole();
    }

  private:
    /// A number of digits, or an argument for "*".
    std::int64_t count(const std::string& text) {
        if (text != "*") {
            return std::strtol(text.c_str(), nullptr, 10);
        }
        const bool large = values_.take<std::uint8_t>() % 4 == 3;
        const int value = large ? values_.take<std::int32_t>() : values_.take<std::int8_t>();
        arguments_.emplace_back(value);
        return value;
    }

    Conversion parse(const std::string& rest) {
        static const std::regex conversion(
            R"(%([-+ #0]*)(\*|[0-9]*)(\.(\*|[0-9]*))?([hlq]?)([\s\S]?))");
        std::smatch part;
        std::regex_search(rest, part, conversion, std::regex_constants::match_continuous);
        const std::int64_t width = count(part.str(2));
        const auto precision = part[3].matched ? std::optional(count(part.str(4))) : std::nullopt;
        return {part.str(1), width, precision, part.str(5), part.str(6)[0], part.str()};
    }

    /// Adds the conversion's argument, now and then one that does not fit. @returns true when it
    /// is a number or a text that fits
    bool add_argument(char letter) {
        if (letter == 0 || std::string_view("diuoxXcpsn").find(letter) == std::string_view::npos) {
            return letter == '%';
        }
        const bool fits = values_.take<std::uint8_t>() % 8 != 7;
        number_ = values_.take<std::uint64_t>();
        text_ = format_.c_str() + number_ % (format_.size() + 1);
        if (letter == 'n' && fits) {
            counters_.emplace_back(whole_.size(), 0);
            arguments_.emplace_back(&counters_.back().second);
            return false;
        }
        (letter == 's') == fits ? arguments_.emplace_back(text_) : arguments_.emplace_back(number_);
        return fits;
    }

    /// True when both say what the conversion of a fitting argument gives and say the same.
    bool is_common(const Conversion& c) const {
        const std::int64_t precision = c.precision.value_or(1);
        if (std::abs(c.width) > kWidest || precision > kWidest || precision < 0) {
            return false;
        }
        if (c.letter == '%') {
            return c.text == "%%";
        }
        if (c.letter == 's' || c.letter == 'c') {
            return !c.has("0#+ ") && c.qualifier.empty() && (c.letter == 's' || !c.precision);
        }
        // Zero padding beside a precision and a zero without digits are the platform's ways, and
        // "#" only means the same for hexadecimal digits of a number that is not zero.
        const bool zero = (number_ & (c.qualifier == "h" ? 0xFFFFU : 0xFFFFFFFFU)) == 0;
        const bool hex = c.letter == 'x' || c.letter == 'X';
        const bool left = c.has("-") || c.width < 0;
        return c.letter != 'p' && c.letter != 'n' && (!c.has("0") || left || !c.precision) &&
               (precision != 0 || !zero) && (!c.has("#") || (hex && !zero));
    }

    void check_piece(const Conversion& c, std::size_t first) {
        const bool fits = add_argument(c.letter);
        std::array<char, kLargest + 1> ours;
        const std::size_t length =
            qfu_format(ours, c.text.c_str(), std::span(arguments_).subspan(first));
        whole_.append(ours.data(), length);
        if (!fits || !is_common(c)) {
            return;
        }
        std::array<char, kLargest + 1> theirs;
        const auto print = [&](auto value) {
            return std::snprintf(theirs.data(), theirs.size(), c.for_platform().c_str(), value);
        };
        const auto expected = static_cast<std::size_t>(
            c.letter == 's' ? print(text_) : print(static_cast<int>(number_)));
        EXPECT_EQ(std::string_view(ours.data(), length + 1),
                  std::string_view(theirs.data(), std::min(expected, kLargest) + 1))
            << "from " << c.text;
    }

    /// The sanitizer sees what is written past the buffer's end.
    void check_whole() const {
        std::vector<char> buffer(size_, 'Z');
        const std::size_t length = qfu_format(buffer, format_.c_str(), arguments_);
        const std::size_t room = size_ == 0 ? 0 : size_ - 1;
        EXPECT_EQ(std::string_view(buffer.data(), length),
                  std::string_view(whole_).substr(0, room));
        EXPECT_TRUE(size_ == 0 || buffer[length] == 0) << "no end";
        for (const auto& [expected, counted] : counters_) {
            EXPECT_EQ(counted, std::min(expected, room));
        }
    }

    std::string format_;
    std::size_t size_; ///< of the buffer
    fuzz::Input values_;
    std::vector<QFU_FORMAT_ARGUMENT> arguments_;
    std::uint64_t number_ = 0; ///< the last conversion's argument
    const char* text_ = nullptr;
    std::deque<std::pair<std::size_t, std::uint32_t>> counters_; ///< expected and counted
    std::string whole_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Formatting({data, size}).check();
    return 0;
}
