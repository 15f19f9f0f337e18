// The driver of serial flash chips: one SPI cycle at a time through the adapter's SPI controller.
//
// Every routine works on the adapter's `current_slot` and, but for the search for a chip, on the
// record of the chip behind it. Results are 0 or QFU_FAILED.
#pragma once

#include "flash_slot.h"
#include "spi_list.h"

#include <cstdint>

/// Polls the command register until the running cycle has ended, `polls` times at most.
std::uint32_t qfu_spiflash_wait_ready(QFU_ADAPTER& adapter, std::uint32_t polls);

/// Reads the chip's status register. `status` keeps its value when the controller stays busy.
std::uint32_t qfu_spiflash_read_status(QFU_ADAPTER& adapter, std::uint32_t& status);

/// Reads the status until its bits under `mask` equal `value`, `tries` times at most.
std::uint32_t qfu_spiflash_wait_status(QFU_ADAPTER& adapter, std::uint32_t mask,
                                       std::uint32_t value, std::uint32_t tries);

/// Sets the chip's write-enable latch and waits until it reads back as set.
std::uint32_t qfu_spiflash_write_enable(QFU_ADAPTER& adapter);

/// The base of the protection sector that holds `address`: seven sectors of 64 KiB, one of 32 KiB,
/// two of 8 KiB, and the last from 0x7C000 up.
std::uint32_t qfu_spiflash_sector_base(std::uint32_t address);

/// Sends the identification opcode. @returns 0 with up to four bytes of the answer in `id`, the
/// first in bits 0 to 7; QFU_FAILED when the controller stays busy
std::uint32_t qfu_spiflash_read_id(QFU_ADAPTER& adapter, std::uint8_t opcode, std::uint32_t& id);

/// Brings the controller into its first state and identifies the chip; sets the slot's `chip` and
/// `chip_type` when the list has it. Writes nothing to the chip.
/// @returns the record of the chip, or null
const QFU_CHIP_ENTRY* qfu_spiflash_identify(QFU_ADAPTER& adapter);

/// Lifts the power-up protection of the chips that are known for it by their whole identification.
void qfu_spiflash_unlock(QFU_ADAPTER& adapter);

/// Lifts the protection of the protection sector that holds `address`, if it is protected.
std::uint32_t qfu_spiflash_unprotect_sector(QFU_ADAPTER& adapter, std::uint32_t address);

/// Clears the chip's status register and with it its block protection.
std::uint32_t qfu_spiflash_unprotect_all(QFU_ADAPTER& adapter);

/// Tries the chip list's identification opcodes. @returns the record of the chip, or null
const QFU_CHIP_ENTRY* qfu_spiflash_lookup(QFU_ADAPTER& adapter);

/// Reads `count` (1 to 4) bytes in one cycle; `buffer` keeps its bytes when the controller stays
/// busy.
std::uint32_t qfu_spiflash_read_piece(QFU_ADAPTER& adapter, std::uint32_t address,
                                      std::uint8_t* buffer, std::uint32_t count);

/// Installs the driver's operations in `slot`; its register accessors are the caller's.
void qfu_spiflash_install(QFU_FLASH_SLOT& slot);
