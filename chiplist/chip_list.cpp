#include "chip_list.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace chiplist {

std::string label(const ChipList& list, std::size_t index) {
    const Chip& chip = list.chips[index];
    if (!chip.parts.empty()) {
        return chip.parts.front();
    }
    return "record " + std::to_string(index) + " (" + id_text(chip.entry) + ")";
}

std::string id_text(const QFU_CHIP_ENTRY& entry) {
    std::string text;
    const std::size_t length = std::min<std::size_t>(entry.id_len, entry.id_bytes.size());
    for (std::size_t i = 0; i < length; ++i) {
        std::array<char, 4> byte{};
        std::snprintf(byte.data(), byte.size(), i == 0 ? "%02X" : " %02X", entry.id_bytes[i]);
        text += byte.data();
    }
    return text;
}

} // namespace chiplist
