#include "match.h"

#include "support/input_error.h"

#include <algorithm>
#include <charconv>
#include <sstream>

namespace spilist {
namespace {

/// The program asks for four bytes.
constexpr std::size_t kMostBytes = 4;

/// Adds the bytes of "EF3013" or "0xEF3013". @returns whether it is that
bool add_bytes(std::string_view word, std::vector<std::uint8_t>& bytes) {
    if (word.starts_with("0x") || word.starts_with("0X")) {
        word.remove_prefix(2);
    }
    if (word.empty() || word.size() % 2 != 0) {
        return false;
    }
    for (; !word.empty(); word.remove_prefix(2)) {
        const auto [end, error] =
            std::from_chars(word.data(), word.data() + 2, bytes.emplace_back(), 16);
        if (error != std::errc() || end != word.data() + 2) {
            return false;
        }
    }
    return bytes.size() <= kMostBytes;
}

} // namespace

std::vector<std::uint8_t> parse_id(const std::string& text) {
    std::vector<std::uint8_t> id;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (!add_bytes(word, id)) {
            throw support::InputError("\"" + text +
                                      "\" is no ID: give 1 to 4 bytes in hexadecimal as the data "
                                      "sheet does, like EF 40 16 or 0xEF4016");
        }
    }
    return id;
}

std::vector<std::size_t> match(const ChipList& list, const std::vector<std::uint8_t>& id) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < id.size(); ++i) {
        value |= std::uint32_t{id[i]} << 8 * i;
    }
    std::vector<std::size_t> records;
    // The program takes the value 0 for no answer.
    for (std::size_t i = 0; value != 0 && i < list.chips.size(); ++i) {
        if (qfu_spiflash_id_match(list.chips[i].entry, value) == 0) {
            records.push_back(i);
        }
    }
    return records;
}

} // namespace spilist
