#include "chip_list.h"

#include <algorithm>
#include <fmt/format.h>

namespace spilist {
namespace {

constexpr double kPauseAfterSectorErase = 0.1; // seconds

} // namespace

std::string label(const ChipList& list, std::size_t index) {
    const Chip& chip = list.chips[index];
    if (!chip.parts.empty()) {
        return chip.parts.front();
    }
    return "record " + std::to_string(index) + " (" + id_text(chip.entry) + ")";
}

std::string bytes_text(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += text.empty() ? "" : " ";
        text += hex_byte(byte);
    }
    return text;
}

std::string id_text(const QFU_CHIP_ENTRY& entry) {
    return bytes_text(std::span(entry.id_bytes)
                          .first(std::min<std::size_t>(entry.id_len, entry.id_bytes.size())));
}

std::string hex_byte(std::uint8_t byte) {
    return fmt::format("{:02X}", byte);
}

std::string size_text(std::uint32_t bytes) {
    constexpr std::uint32_t kKiB = 1024;
    constexpr std::uint32_t kMiB = 1024 * kKiB;
    if (bytes != 0 && bytes % kMiB == 0) {
        return std::to_string(bytes / kMiB) + "M";
    }
    if (bytes != 0 && bytes % kKiB == 0) {
        return std::to_string(bytes / kKiB) + "K";
    }
    return std::to_string(bytes);
}

std::string parts_text(const Chip& chip) {
    std::string text;
    for (const std::string& part : chip.parts) {
        text += text.empty() ? "" : " / ";
        text += part;
    }
    return text;
}

double least_erase_seconds(const QFU_CHIP_ENTRY& entry) {
    if (entry.sector_size == 0) {
        return 0;
    }
    const std::uint32_t sectors = entry.whole_size / entry.sector_size;
    return sectors * kPauseAfterSectorErase;
}

std::set<std::uint32_t> erase_units(const ChipList& list) {
    std::set<std::uint32_t> units;
    for (const Chip& chip : list.chips) {
        units.insert({chip.entry.sector_size, chip.entry.block_size});
    }
    return units;
}

void use_erase_unit(ChipList& list, std::uint32_t unit) {
    for (Chip& chip : list.chips) {
        QFU_CHIP_ENTRY& entry = chip.entry;
        if (entry.block_size <= unit && entry.block_size > entry.sector_size) {
            entry.sector_size = entry.block_size;
            entry.op_sector_erase = entry.op_block_erase;
        }
    }
}

} // namespace spilist
