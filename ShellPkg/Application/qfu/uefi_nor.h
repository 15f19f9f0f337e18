// The driver of parallel NOR flash chips: sequences of bus cycles through the adapter's NOR
// controller, contents through the flash window in BAR 0.
//
// Every routine works on the adapter's `current_slot`, which is slot 0 whenever one is called.
// Results are 0 or QFU_FAILED.
#pragma once

#include "flash_slot.h"

#include <cstdint>
#include <span>

/// Waits until the running sequence has ended and the chip is ready, `polls` + 1 tries at most, and
/// acknowledges the end in either case. A break ends the wait with success.
std::uint32_t qfu_norflash_wait_done(QFU_ADAPTER& adapter, std::uint32_t polls);

/// Returns the chip to reading. Prints when the sequence does not end.
void qfu_samsung_reset(QFU_ADAPTER& adapter);

/// Reads the chip's identification and leaves the chip in identification mode.
/// @returns 0 with the value in `id`; QFU_FAILED when the sequence does not end
std::uint32_t qfu_norflash_read_id(QFU_ADAPTER& adapter, std::uint32_t& id);

/// Reads the chip's identification and fills the slot's `chip` and `chip_type` when it is known.
/// Prints the value that was read when it is not.
std::uint32_t qfu_norflash_identify(QFU_ADAPTER& adapter);

/// Reads 16-bit words through the flash window, low byte first. An odd `count` stores one byte
/// more.
std::uint32_t qfu_norflash_read_words(QFU_ADAPTER& adapter, std::uint32_t address,
                                      std::uint8_t* buffer, std::uint32_t count);

/// Erases the block that holds the byte `address`.
std::uint32_t qfu_norflash_sector_erase(QFU_ADAPTER& adapter, std::uint32_t address);

std::uint32_t qfu_norflash_chip_erase(QFU_ADAPTER& adapter);

/// Programs the data word by word in the chip's unlock-bypass mode and skips words of 0xFFFF.
/// Beside an odd last byte goes 0xFF, which programs nothing. The mode stays on when a word fails.
std::uint32_t qfu_norflash_program(QFU_ADAPTER& adapter, std::uint32_t address,
                                   std::span<const std::uint8_t> data);

/// The erase block that holds the byte `address` of the chip with this identification.
QFU_ERASE_UNIT qfu_norflash_block(std::uint32_t id_value, std::uint32_t address);

/// Number of the erase block that holds the byte `address` of the chip with this identification.
std::uint32_t qfu_norflash_block_number(std::uint32_t id_value, std::uint32_t address);

/// Installs the driver's operations in `slot`; there are no register accessors and no block erase.
void qfu_norflash_install(QFU_FLASH_SLOT& slot);
