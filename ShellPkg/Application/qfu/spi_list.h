// The chip list file: which SPI flash chips there are and how each is driven.
#pragma once

#include "platform/efi.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

struct QFU_CONTEXT;

/// One chip of the list. Fields that are named reserved are not read.
struct QFU_CHIP_ENTRY {
    std::uint8_t id_len; ///< identification bytes to compare; 0 matches every chip
    std::array<std::uint8_t, 15> id_bytes; ///< in the order in which the chip sends them
    std::uint32_t whole_size;              ///< bytes; 0 ends the list
    std::uint32_t sector_size;             ///< bytes, a power of two: the unit of the range erase
    std::uint32_t block_size;              ///< bytes, a power of two
    std::uint8_t op_write_enable;
    std::uint8_t reserved_29;
    std::uint8_t op_read_status;
    std::uint8_t op_write_status;
    std::uint8_t op_read;
    std::uint8_t op_program; ///< one byte a command
    std::uint8_t op_sector_erase;
    std::uint8_t op_chip_erase;
    std::uint8_t reserved_36;
    std::uint8_t op_block_erase;
    std::array<std::uint8_t, 6> reserved_38;
};
static_assert(sizeof(QFU_CHIP_ENTRY) == 44 && offsetof(QFU_CHIP_ENTRY, whole_size) == 16 &&
              offsetof(QFU_CHIP_ENTRY, op_write_enable) == 28 &&
              offsetof(QFU_CHIP_ENTRY, op_block_erase) == 37);

inline constexpr std::size_t QFU_CHIP_LIST_RECORDS = 64;
inline constexpr std::size_t QFU_CHIP_LIST_OPCODES = 16;

/// The part of the file that is checked and used; little-endian. A longer file is accepted.
struct QFU_CHIP_LIST {
    std::array<std::uint8_t, 4> magic; ///< "LUFQ"
    std::uint8_t marker;               ///< 0xFF
    std::uint8_t reserved_5;
    std::uint16_t body_size; ///< the bytes behind offset 11
    std::array<std::uint8_t, 2> reserved_8;
    std::uint8_t version_hi;
    std::uint8_t version_lo;
    std::array<std::uint8_t, 52> reserved_12;
    /// Read-identification opcodes to try, in order, up to the first 0.
    std::array<std::uint32_t, QFU_CHIP_LIST_OPCODES> id_opcodes;
    /// Chips in order of precedence, up to the first of size 0.
    std::array<QFU_CHIP_ENTRY, QFU_CHIP_LIST_RECORDS> records;
};
static_assert(sizeof(QFU_CHIP_LIST) == 2944 && offsetof(QFU_CHIP_LIST, version_hi) == 10 &&
              offsetof(QFU_CHIP_LIST, id_opcodes) == 64 && offsetof(QFU_CHIP_LIST, records) == 128);

inline constexpr std::array<std::uint8_t, 4> QFU_CHIP_LIST_MAGIC = {'L', 'U', 'F', 'Q'};
inline constexpr std::uint8_t QFU_CHIP_LIST_MARKER = 0xFF;
inline constexpr std::uint16_t QFU_CHIP_LIST_BODY_SIZE = sizeof(QFU_CHIP_LIST) - 12;

/// Whether the file's `size` bytes are a list that the program serves: long enough, marked, of
/// version 1.1 or later, with bytes that add up to 0, with an end behind its opcodes and behind 1
/// to 63 chips.
bool qfu_chiplist_valid(std::span<const std::uint8_t> file);

/// Loads "spilist.bin" from the current directory into the context; a list that is not valid, or
/// for which there is no memory, leaves the context without one.
/// @returns EFI_INVALID_PARAMETER, after a message, when the file cannot be opened; else
/// EFI_SUCCESS
EFI_STATUS qfu_chiplist_load(QFU_CONTEXT& context);

/// Compares a chip's identification value, first byte in bits 0 to 7, with a record.
/// @returns 0 when the record describes the chip, else 1
int qfu_spiflash_id_match(const QFU_CHIP_ENTRY& entry, std::uint32_t id);
