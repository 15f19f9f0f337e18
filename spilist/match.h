// Which record of a list the program gives to a chip.
#pragma once

#include "chip_list.h"

#include <cstdint>
#include <string>
#include <vector>

namespace spilist {

/// Reads a chip's answer to an identification opcode, 1 to 4 bytes, as in "EF 30 13" or "EF3013".
/// @throws support::InputError for anything else
std::vector<std::uint8_t> parse_id(const std::string& text);

/// The records that match such an answer; the program takes the first.
std::vector<std::size_t> match(const ChipList& list, const std::vector<std::uint8_t>& id);

} // namespace spilist
