#include "nearest_word.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <vector>

namespace support {
namespace {

bool same_letter(char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
}

/// Letters that must be added, taken away or replaced to make one word of the other.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (same_letter(a[i], b[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

} // namespace

std::string_view nearest_word(std::string_view typed, std::span<const std::string_view> words) {
    std::string_view nearest;
    std::size_t least = SIZE_MAX;
    for (const std::string_view word : words) {
        const std::size_t changes = distance(typed, word);
        const std::size_t letters = std::max(typed.size(), word.size());
        if (changes < least && 2 * changes <= letters) {
            least = changes;
            nearest = word;
        }
    }
    return nearest;
}

std::string unknown_word(std::string_view what, std::string_view typed,
                         std::span<const std::string_view> words, std::string_view known) {
    std::string text = "unknown " + std::string(what) + " \"" + std::string(typed) + "\"; ";
    if (const std::string_view nearest = nearest_word(typed, words); !nearest.empty()) {
        return text + "did you mean \"" + std::string(nearest) + "\"?";
    }
    if (!known.empty()) {
        return text + std::string(known);
    }
    text += "known:";
    for (const std::string_view word : words) {
        text.append(word == words.front() ? " \"" : ", \"");
        text.append(word);
        text.append("\"");
    }
    return text;
}

} // namespace support
