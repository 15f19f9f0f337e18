// The chip list file: bytes that the program loads.
#pragma once

#include "chip_list.h"

#include <cstdint>
#include <span>
#include <vector>

namespace spilist {

/// Lays a list out as a file with a correct checksum. The list must have passed its checks.
std::vector<std::uint8_t> encode(const ChipList& list);

/// Reads any bytes as a list file: the opcodes and whole records up to their ends, and what is
/// wrong with its form.
ChipList decode(std::span<const std::uint8_t> file);

} // namespace spilist
