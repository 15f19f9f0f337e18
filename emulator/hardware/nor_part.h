// What data sheets say about parallel NOR flash parts.
#pragma once

#include <cstdint>
#include <span>

namespace emulator {

/// A part with 64 KiB blocks, of which the first, and on some the last too, is split into eight
/// boot blocks of 8 KiB.
struct NorPart {
    std::uint16_t manufacturer;
    std::uint16_t device;
    std::uint32_t size; ///< bytes
    bool boot_blocks_at_top;

    /// Its identification, manufacturer in bits 0 to 15 and device in bits 16 to 31.
    constexpr std::uint32_t id() const { return std::uint32_t{device} << 16 | manufacturer; }
};

std::span<const NorPart> nor_parts();

/// The part that answers with this identification, or null.
const NorPart* find_nor_part(std::uint32_t id);

/// A range of bytes that is erased as one.
struct NorBlock {
    std::uint32_t address;
    std::uint32_t size;
};

/// The block of the part that holds a byte.
NorBlock nor_block(const NorPart& part, std::uint32_t address);

} // namespace emulator
