// Detection: what registers, drivers and chips a new adapter has.
#pragma once

#include <cstdint>

struct QFU_ADAPTER;

/// Sets the adapter's register bases for its SPI controller, installs the SPI driver in slot 1 and
/// selects it. Touches no register.
/// @returns 0, or QFU_FAILED for an interface kind without SPI flash
std::uint32_t qfu_spi_attach(QFU_ADAPTER& adapter);

/// Sets the adapter's register bases for its NOR controller, installs the NOR driver in slot 0 and
/// selects it. Touches no register.
/// @returns 0, or QFU_FAILED for an interface kind without NOR flash
std::uint32_t qfu_nor_attach(QFU_ADAPTER& adapter);

/// Detect routine of adapters with SPI flash alone: sets the register base, fills slot 1 and
/// identifies its chip. Prints when there is none.
/// @returns 0, or QFU_FAILED for an interface kind without SPI flash
std::uint32_t qfu_spi_detect(QFU_ADAPTER& adapter);

/// Detect routine of adapters with NOR flash beside SPI flash: fills slot 1, then slot 0. Prints
/// when a slot has no chip.
/// @returns 0, or QFU_FAILED for an interface kind without NOR flash
std::uint32_t qfu_nor_detect(QFU_ADAPTER& adapter);
