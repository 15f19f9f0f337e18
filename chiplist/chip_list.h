// The chip list as the compiler handles it: the program's records with the names people know.
#pragma once

#include "spi_list.h"

#include <cstdint>
#include <string>
#include <vector>

namespace chiplist {

/// One chip record. Parts and note come from the source; a list file does not carry them.
struct Chip {
    QFU_CHIP_ENTRY entry;
    std::vector<std::string> parts;
    std::string note;
};

/// A chip list.
struct ChipList {
    std::uint8_t version_hi;
    std::uint8_t version_lo;
    std::vector<std::uint32_t> id_opcodes;
    std::vector<Chip> chips;
};

/// How messages name a record: by its part numbers, else by its place and identification.
std::string label(const ChipList& list, std::size_t index);

/// The record's identification bytes in hexadecimal, "EF 40 16".
std::string id_text(const QFU_CHIP_ENTRY& entry);

} // namespace chiplist
