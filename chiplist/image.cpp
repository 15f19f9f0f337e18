#include "image.h"

#include <algorithm>
#include <cstring>

namespace chiplist {

std::vector<std::uint8_t> encode(const ChipList& list) {
    QFU_CHIP_LIST file{};
    file.magic = QFU_CHIP_LIST_MAGIC;
    file.marker = QFU_CHIP_LIST_MARKER;
    file.body_size = QFU_CHIP_LIST_BODY_SIZE;
    file.version_hi = list.version_hi;
    file.version_lo = list.version_lo;
    std::ranges::copy(list.id_opcodes, file.id_opcodes.begin());
    std::ranges::transform(list.chips, file.records.begin(), &Chip::entry);

    std::vector<std::uint8_t> bytes(sizeof file);
    std::memcpy(bytes.data(), &file, sizeof file);
    std::uint8_t sum = 0;
    for (const std::uint8_t byte : bytes) {
        sum = static_cast<std::uint8_t>(sum + byte);
    }
    // A byte that nobody reads brings the sum of all bytes to 0.
    bytes[offsetof(QFU_CHIP_LIST, reserved_5)] = static_cast<std::uint8_t>(-sum);
    return bytes;
}

} // namespace chiplist
