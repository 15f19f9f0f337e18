// The chip list file: bytes that the program loads.
#pragma once

#include "chip_list.h"

#include <cstdint>
#include <vector>

namespace chiplist {

/// Lays a list out as a file with a correct checksum. The list must have passed its checks.
std::vector<std::uint8_t> encode(const ChipList& list);

} // namespace chiplist
