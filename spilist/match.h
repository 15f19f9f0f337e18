// Which record of a list the program gives to a chip.
#pragma once

#include "chip_list.h"

#include <cstdint>
#include <string>
#include <vector>

namespace spilist {

/// A chip's answer to an identification opcode, as someone wrote it.
struct ChipId {
    std::vector<std::uint8_t> bytes; ///< 1 to 4, the first one first
    bool number;                     ///< written as one number; it may begin with the last byte
};

/// Reads "EF 30 13", "EF3013", "0xEF 0x30 0x13" or the number 0xEF3013.
/// @throws support::InputError for anything else
ChipId parse_id(const std::string& text);

/// The answer to the question which record a chip gets.
struct Match {
    std::vector<std::uint8_t> bytes;  ///< the chip's answer as it was taken
    std::vector<std::size_t> records; ///< that match; the program takes the first
};

/// Takes a number that no record matches from its last byte: it may be the value of a register,
/// where the byte that the chip sends first is the lowest.
Match match(const ChipList& list, const ChipId& id);

} // namespace spilist
