#include "nor_part.h"

#include "units.h"

namespace emulator {
namespace {

constexpr NorPart kNorParts[] = {
    {0x0001, 0x227E, 8 * kMiB, false},
    {0x00C2, 0x22C9, 8 * kMiB, false},
    {0x00C2, 0x22CB, 8 * kMiB, false},
    {0x0020, 0x22ED, 8 * kMiB, false},
    {0x0020, 0x22FD, 8 * kMiB, false},
    {0x00EC, 0x257E, 4 * kMiB, true },
};

} // namespace

std::span<const NorPart> nor_parts() {
    return kNorParts;
}

const NorPart* find_nor_part(std::uint32_t id) {
    for (const NorPart& part : kNorParts) {
        if (part.id() == id) {
            return &part;
        }
    }
    return nullptr;
}

NorBlock nor_block(const NorPart& part, std::uint32_t address) {
    constexpr std::uint32_t kBlock = 64 * kKiB;
    const bool boot =
        address < kBlock || (part.boot_blocks_at_top && address >= part.size - kBlock);
    const std::uint32_t size = boot ? 8 * kKiB : kBlock;
    return {address / size * size, size};
}

} // namespace emulator
