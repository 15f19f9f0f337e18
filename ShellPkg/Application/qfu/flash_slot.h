// Register access, the two flash slots of an adapter, and the choice between them.
#pragma once

#include "platform/pci.h"

#include <cstddef>
#include <cstdint>

struct QFU_ADAPTER;

/// What flash and slot operations return when they fail; 0 is success.
inline constexpr std::uint32_t QFU_FAILED = 0xFFFFFFFF;

/// How an adapter's flash controller is reached.
inline constexpr std::uint8_t QFU_FLASH_IF_INDEXED = 1; ///< index/data register pair in BAR 5
inline constexpr std::uint8_t QFU_FLASH_IF_BAR2 = 2; ///< register window in BAR 2, NOR beside SPI
inline constexpr std::uint8_t QFU_FLASH_IF_BAR0 = 4; ///< register window in BAR 0

/// Kinds of chip behind a slot.
inline constexpr std::uintptr_t QFU_CHIP_NOR = 0;
inline constexpr std::uintptr_t QFU_CHIP_SPI = 1;

/// Index register of kind 1, at `reg_base` plus this; the data register follows it.
inline constexpr std::uint32_t QFU_INDEX_REGISTER = 0xA8;

/// SPI flash controller registers, as `reg_read` and `reg_write` take them.
inline constexpr std::uint32_t QFU_SPI_COMMAND = 0;
inline constexpr std::uint32_t QFU_SPI_ADDRESS = 4;
inline constexpr std::uint32_t QFU_SPI_DATA_OUT = 8;
inline constexpr std::uint32_t QFU_SPI_DATA_IN = 12; ///< kinds 2 and 4; kind 1 receives in DATA_OUT

/// One chip select of an adapter: the chip behind it and the operations that serve it. Every
/// operation works on the slot that the adapter's `current_slot` points to. An operation that a
/// slot does not have is null.
struct QFU_FLASH_SLOT {
    std::uintptr_t chip_type; ///< QFU_CHIP_*; means something only while `chip` is set
    const void* chip; ///< SPI: QFU_CHIP_ENTRY in the chip list; NOR: QFU_NOR_CHIP; null without one
    std::uint32_t (*reg_read)(QFU_ADAPTER&, std::uint32_t reg);
    void (*reg_write)(QFU_ADAPTER&, std::uint32_t reg, std::uint32_t value);
    /// Identifies the chip; sets `chip` and `chip_type` when it is known.
    std::uint32_t (*probe)(QFU_ADAPTER&);
    /// Called once when a flash command ends.
    std::uint32_t (*finish)(QFU_ADAPTER&);
    /// Erases the sector (the larger block, the chip) that holds the address.
    std::uint32_t (*erase_sector)(QFU_ADAPTER&, std::uint32_t address);
    std::uint32_t (*erase_block)(QFU_ADAPTER&, std::uint32_t address);
    std::uint32_t (*erase_chip)(QFU_ADAPTER&);
    /// Copies `count` bytes of flash from `address` on into the buffer, which has room for `count`
    /// rounded up to an even number.
    std::uint32_t (*read)(QFU_ADAPTER&, std::uint32_t address, std::uint8_t* buffer,
                          std::uint32_t count);
    /// Erases every unit that holds a byte of the range and prints its progress.
    std::uint32_t (*erase_range)(QFU_ADAPTER&, std::uint32_t address, std::uint32_t count);
    /// Programs `count` bytes of data from `address` on.
    std::uint32_t (*write)(QFU_ADAPTER&, std::uint32_t address, const std::uint8_t* data,
                           std::uint32_t count);
    /// Prints the chip's size and identification.
    void (*show_info)(QFU_ADAPTER&);
};
static_assert(sizeof(QFU_FLASH_SLOT) == 13 * sizeof(void*));

/// What one erase covers.
struct QFU_ERASE_UNIT {
    std::uint32_t first; ///< address of its first byte
    std::uint32_t size;  ///< bytes, a power of two
};

/// The chip of a NOR slot: a row of the driver's table.
struct QFU_NOR_CHIP {
    std::uint32_t id_value;   ///< manufacturer code in bits 0 to 15, device code in bits 16 to 31
    std::uint32_t whole_size; ///< bytes
};

/// What a read gives when the firmware reports a failure.
inline constexpr std::uint32_t QFU_READ_FAILED_32 = 0x5A5A5A5A;
inline constexpr std::uint16_t QFU_READ_FAILED_16 = 0x5A5A;

/// Reads one 32-bit register at a bus address. @returns the value, or QFU_READ_FAILED_32
std::uint32_t qfu_mem_read32(platform::RootBridge* bridge, std::uint32_t address);

/// Reads one 16-bit word at an even bus address. @returns the word, or QFU_READ_FAILED_16
std::uint16_t qfu_mem_read16(platform::RootBridge* bridge, std::uint32_t address);

/// Writes one 32-bit register at a bus address. @returns the firmware's status
EFI_STATUS qfu_mem_write32(platform::RootBridge* bridge, std::uint32_t address,
                           std::uint32_t value);

/// SPI controller access through the index/data pair of kind 1, at `reg_base` + 0xA8 and + 0xAC.
std::uint32_t qfu_spireg_read_indexed(QFU_ADAPTER& adapter, std::uint32_t reg);
void qfu_spireg_write_indexed(QFU_ADAPTER& adapter, std::uint32_t reg, std::uint32_t value);

/// SPI controller access through the register window of kind 2, at `reg_base` + 0xC800.
std::uint32_t qfu_spireg_read_bar2(QFU_ADAPTER& adapter, std::uint32_t reg);
void qfu_spireg_write_bar2(QFU_ADAPTER& adapter, std::uint32_t reg, std::uint32_t value);

/// SPI controller access through the register window of kind 4, at `reg_base` + 0x1C800.
std::uint32_t qfu_spireg_read_bar0(QFU_ADAPTER& adapter, std::uint32_t reg);
void qfu_spireg_write_bar0(QFU_ADAPTER& adapter, std::uint32_t reg, std::uint32_t value);

/// Selects the adapter's slot: the one that the request names with `-csid`, else the one that
/// detection left, else the interface kind's own (kind 2: slot 0, others: slot 1).
/// @returns the slot, now the adapter's `current_slot`
QFU_FLASH_SLOT* qfu_current_slot(QFU_ADAPTER& adapter);

/// Selects the slot like `qfu_current_slot`. @returns its chip's size in bytes, 0 without a chip
std::uint32_t qfu_flash_size(QFU_ADAPTER& adapter);
