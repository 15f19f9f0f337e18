// The flash commands: wipe, range erase, program and verify, dump, parameter script.
#pragma once

#include "platform/efi.h"

#include <cstddef>
#include <cstdint>
#include <span>

struct QFU_ADAPTER;

/// Bytes that go through the block buffer at a time.
inline constexpr std::uint32_t QFU_BLOCK_SIZE = 4096;

/// Bytes that are read from flash at a time.
inline constexpr std::uint32_t QFU_VERIFY_PIECE = 32;

/// Carries out the first command of the request that applies, on the adapter's selected slot, and
/// calls the slot's `finish` at its end on every path.
/// @returns EFI_NO_MEDIA without a chip, EFI_INVALID_PARAMETER for a range erase without a size,
///          EFI_OUT_OF_RESOURCES without a block buffer, EFI_DEVICE_ERROR when a block does not
///          verify, else EFI_SUCCESS
EFI_STATUS process_file_fun(QFU_ADAPTER& adapter);

/// Asks the user to go on unless the request says `-y`. @returns 0 to go on, -1 to skip
int qfu_confirm(QFU_ADAPTER& adapter);

/// Programs `data` at `address` and compares what reads back; dumps both sides of the first piece
/// that differs. A piece that cannot be read back passes.
/// @returns 0; -1 when a piece differs, there is no chip, or the user broke the comparison
int qfu_write_block(QFU_ADAPTER& adapter, std::uint32_t address,
                    std::span<const std::uint8_t> data);

/// Reads flash from `address` on into `buffer`. @returns 0, or -1 when there is no chip
int qfu_read_block(QFU_ADAPTER& adapter, std::uint32_t address, std::span<std::uint8_t> buffer);
