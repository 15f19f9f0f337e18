// The chip list as the compiler handles it: the program's records with the names people know.
#pragma once

#include "finding.h"
#include "qfu/spi_list.h"

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace spilist {

/// The line of each key in a table of a source; that of the table itself has the empty key.
using Lines = std::map<std::string, std::uint32_t, std::less<>>;

/// One chip record. Parts, note and lines come from the source; a list file does not carry them.
struct Chip {
    QFU_CHIP_ENTRY entry;
    std::vector<std::string> parts;
    std::string note;
    Lines lines = {};
};

/// A chip list.
struct ChipList {
    std::uint8_t version_hi;
    std::uint8_t version_lo;
    std::vector<std::uint32_t> id_opcodes;
    std::vector<Chip> chips;
    Lines lines = {};
    std::vector<Finding> findings = {}; ///< what showed while it was read
    bool is_list = true; ///< false for a file of another kind, which is not looked into
};

/// A field of a record and its name in sources and messages.
struct OpcodeField {
    const char* name;
    const char* column; ///< head of its column in a table
    std::uint8_t QFU_CHIP_ENTRY::*value;
};
inline constexpr OpcodeField kOpcodeFields[] = {
    {"write_enable", "we", &QFU_CHIP_ENTRY::op_write_enable},
    {"read_status",  "rs", &QFU_CHIP_ENTRY::op_read_status },
    {"write_status", "ws", &QFU_CHIP_ENTRY::op_write_status},
    {"read",         "rd", &QFU_CHIP_ENTRY::op_read        },
    {"program",      "pp", &QFU_CHIP_ENTRY::op_program     },
    {"sector_erase", "se", &QFU_CHIP_ENTRY::op_sector_erase},
    {"block_erase",  "be", &QFU_CHIP_ENTRY::op_block_erase },
    {"chip_erase",   "ce", &QFU_CHIP_ENTRY::op_chip_erase  },
};
struct SizeField {
    const char* name;
    std::uint32_t QFU_CHIP_ENTRY::*value;
};
inline constexpr SizeField kSizeFields[] = {
    {"size",   &QFU_CHIP_ENTRY::whole_size },
    {"sector", &QFU_CHIP_ENTRY::sector_size},
    {"block",  &QFU_CHIP_ENTRY::block_size },
};

/// How messages name a record: by its part numbers, else by its place and identification.
std::string label(const ChipList& list, std::size_t index);

/// Bytes in hexadecimal with spaces between them, "EF 40 16".
std::string bytes_text(std::span<const std::uint8_t> bytes);

/// The record's identification bytes in hexadecimal, "EF 40 16".
std::string id_text(const QFU_CHIP_ENTRY& entry);

/// A byte in two hexadecimal digits.
std::string hex_byte(std::uint8_t byte);

/// A number of bytes as sources write it, "4K" or "2M" or plain digits.
std::string size_text(std::uint32_t bytes);

/// The parts with " / " between them.
std::string parts_text(const Chip& chip);

/// The least time that the program takes to erase the whole chip sector by sector: it pauses 100 ms
/// after each. 0 for a record without sectors.
double least_erase_seconds(const QFU_CHIP_ENTRY& entry);

/// The sizes of the list's sectors and blocks.
std::set<std::uint32_t> erase_units(const ChipList& list);

/// Makes each chip's sector the largest of its erase units that is not larger than `unit`; a chip
/// whose units are all larger keeps its sector.
void use_erase_unit(ChipList& list, std::uint32_t unit);

} // namespace spilist
