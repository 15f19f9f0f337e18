// What data sheets say about serial flash parts.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace emulator {

/// How a part keeps its contents from being changed. Every part has block protection bits in its
/// status register besides; most power up with them clear.
enum class Protection : std::uint8_t {
    kOpenAtPowerUp,   ///< block protection bits, clear
    kBlockBitsSet,    ///< block protection bits, set
    kSectorRegisters, ///< a protection register a sector, set
};

/// An erase command and the size of the aligned unit that it erases.
struct EraseCommand {
    std::uint8_t opcode;
    std::uint32_t unit; ///< bytes
};

/// The erase commands of a family of parts.
struct EraseSet {
    std::array<EraseCommand, 3> units;      ///< smallest first; a unit of 0: no such command
    std::array<std::uint8_t, 2> whole_chip; ///< 0: no second opcode
};

/// How a family of parts programs, and how it lets its status register be written.
struct WriteSet {
    std::uint32_t page;         ///< most bytes that 02 programs; the address wraps inside them
    std::uint8_t word_program;  ///< programs two bytes and goes on without an address; 0: none
    std::uint8_t status_enable; ///< allows the next command to write the status; 0: none
};

/// One part number. Commands that all parts share (06, 05, 01, 03, 02, 04) are not listed.
struct SpiPart {
    std::string_view name;
    std::uint8_t id_opcode;
    std::uint8_t id_length;
    std::array<std::uint8_t, 3>
        id;             ///< in the order in which the part sends it, then from the start
    std::uint32_t size; ///< bytes
    const EraseSet* erases;
    Protection protection;
    const WriteSet* writes;
};

std::span<const SpiPart> spi_parts();

/// True for opcodes that ask any part for its identification.
bool asks_for_identification(std::uint8_t opcode);

/// The part of that name, or null.
const SpiPart* find_spi_part(std::string_view name);

} // namespace emulator
