#include "phy_pattern.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <vector>

namespace emulator {
namespace {

/// Bits in the order of the wire, as '0' and '1'; a stream repeats them for ever.
using Bits = std::string;

/// The encoder's six bits of the low five of a data character, while more ones than zeros are due.
constexpr std::array<std::string_view, 32> kSixBits = {
    "100111", "011101", "101101", "110001", "110101", "101001", "011001", "111000",
    "111001", "100101", "010101", "110100", "001101", "101100", "011100", "010111",
    "011011", "100011", "010011", "110010", "001011", "101010", "011010", "111010",
    "110011", "100110", "010110", "110110", "001110", "101110", "011110", "101011"};

/// The encoder's four bits of the high three, in the same state.
constexpr std::array<std::string_view, 8> kFourBits = {"1011", "1001", "0101", "1100",
                                                       "1101", "1010", "0110", "1110"};

/// Ones more than zeros.
constexpr int disparity(std::string_view bits) {
    int sum = 0;
    for (const char bit : bits) {
        sum += bit == '1' ? 1 : -1;
    }
    return sum;
}

/// Codes are different from each other and lean to the ones by two bits, or to no side.
constexpr bool is_code(std::span<const std::string_view> codes) {
    for (std::size_t i = 0; i < codes.size(); ++i) {
        const int d = disparity(codes[i]);
        for (std::size_t j = 0; j < i; ++j) {
            if (codes[i] == codes[j]) {
                return false;
            }
        }
        if (d != 0 && d != 2) {
            return false;
        }
    }
    return true;
}
static_assert(is_code(kSixBits) && is_code(kFourBits));

Bits complement(Bits bits) {
    for (char& bit : bits) {
        bit = bit == '1' ? '0' : '1';
    }
    return bits;
}

/// The 8b/10b encoder.
class Encoder {
  public:
    Bits send(std::uint8_t character) {
        const std::size_t low = character & 0x1FU;
        const std::size_t high = character >> 5U;
        const Bits six = balanced(kSixBits[low], low == 7);
        // Five equal bits in a row would look like the start of a K28.5.
        const bool lone =
            ones_ ? low == 11 || low == 13 || low == 14 : low == 17 || low == 18 || low == 20;
        return six + balanced(high == 7 && lone ? "0111" : kFourBits[high], high == 3);
    }

  private:
    /// @param alternates  true for codes without disparity that are complemented all the same
    Bits balanced(std::string_view code, bool alternates) {
        const bool leans = disparity(code) != 0;
        const bool turn = ones_ && (leans || alternates);
        ones_ = ones_ != leans;
        return turn ? complement(Bits(code)) : Bits(code);
    }

    bool ones_ = false; ///< the stream so far leans to the ones
};

/// The lengths of the runs of equal bits of a stream, in order; the last run and the first are one.
std::vector<std::size_t> run_lengths(const Bits& bits) {
    const std::size_t first = bits.find(bits.front() == '1' ? '0' : '1');
    if (first == std::string::npos) {
        return {};
    }
    std::vector<std::size_t> runs;
    for (std::size_t i = 0; i < bits.size(); ++i) {
        const std::size_t at = (first + i) % bits.size();
        const bool changes = bits[at] != bits[(at + bits.size() - 1) % bits.size()];
        if (changes) {
            runs.push_back(0);
        }
        ++runs.back();
    }
    return runs;
}

std::string runs_text(const Bits& bits) {
    const auto runs = run_lengths(bits);
    std::string text;
    for (const std::size_t length : std::set<std::size_t>(runs.begin(), runs.end())) {
        text.append(text.empty() ? "runs of " : ", ");
        text.append(std::to_string(length));
    }
    return text.empty() ? "no transitions" : text;
}

/// True when a single bit stands somewhere between long runs of the other value.
bool has_lone_bit(const std::vector<std::size_t>& runs) {
    constexpr std::size_t kLong = 3;
    for (std::size_t i = 0; i < runs.size(); ++i) {
        const std::size_t before = runs[(i + runs.size() - 1) % runs.size()];
        const std::size_t behind = runs[(i + 1) % runs.size()];
        if (runs[i] == 1 && std::min(before, behind) >= kLong) {
            return true;
        }
    }
    return false;
}

/// The name of what a stream is good for, by its runs alone.
std::string_view name_of(const Bits& bits) {
    const auto runs = run_lengths(bits);
    if (runs.empty()) {
        return "direct current";
    }
    const auto [shortest, longest] = std::ranges::minmax(runs);
    return longest == 1                    ? "high frequency"
           : longest == 2 && shortest == 2 ? "middle frequency"
           : longest <= 5 && shortest >= 3 ? "low frequency"
           : has_lone_bit(runs)            ? "lone bit"
                                           : "no test pattern";
}

/// K28.5 in a stream that leans to the zeros; the next one is its complement.
constexpr std::string_view kK28_5 = "0011111010";

std::string jitter(std::uint32_t selector) {
    constexpr std::array<std::size_t, 5> kRuns = {0, 1, 2, 5, 10};
    const std::size_t t = kRuns[selector];
    const Bits half = t == 0 ? Bits(kK28_5) : Bits(t, '1');
    const std::string name = t == 0 ? "K28.5" : std::to_string(t) + "T";
    return "jitter, " + name + ", " + runs_text(half + complement(half));
}

/// A shift register of `order` bits whose feedback is its last bit and another one.
struct Prbs {
    unsigned order;
    unsigned tap;
};

std::string prbs(std::uint32_t selector) {
    constexpr std::array<Prbs, 5> kPolynomials = {
        {{7, 6}, {9, 5}, {15, 14}, {23, 18}, {31, 28}}
    };
    const Prbs& p = kPolynomials[selector];
    const std::string order = std::to_string(p.order);
    return "PRBS" + order + ", x^" + order + " + x^" + std::to_string(p.tap) + " + 1";
}

std::string character_name(std::uint8_t character) {
    return "D" + std::to_string(character & 0x1F) + "." + std::to_string(character >> 5);
}

/// The shortest row of characters whose repetition these are.
std::span<const std::uint8_t> period(std::span<const std::uint8_t> characters) {
    std::size_t length = 1;
    while (!std::ranges::equal(characters.subspan(length),
                               characters.first(characters.size() - length))) {
        length *= 2;
    }
    return characters.first(length);
}

} // namespace

std::string describe_selection(std::uint32_t selector) {
    constexpr std::uint32_t kPrbs = 0x80;
    constexpr std::uint32_t kOfEach = 5;
    return selector < kOfEach                                ? jitter(selector)
           : selector >= kPrbs && selector - kPrbs < kOfEach ? prbs(selector - kPrbs)
                                                             : "";
}

std::string describe_characters(std::span<const std::uint32_t, 4> registers) {
    std::array<std::uint8_t, 8> characters{};
    for (std::size_t i = 0; i < characters.size(); ++i) {
        characters[i] = static_cast<std::uint8_t>(registers[i / 2] >> (8 * (i % 2)));
    }
    Encoder encoder;
    Bits bits;
    for (int round = 0; round < 2; ++round) { // the second leaves the encoder as it found it
        for (const std::uint8_t character : characters) {
            bits += encoder.send(character);
        }
    }
    std::string text(name_of(bits));
    text.append(", " + runs_text(bits) + " (");
    for (const std::uint8_t character : period(characters)) {
        text.append(text.back() == '(' ? "" : " ");
        text.append(character_name(character));
    }
    return text + ")";
}

} // namespace emulator
