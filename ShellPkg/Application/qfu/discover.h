// The supported adapters and their discovery on PCI.
#pragma once

#include "adapter.h"

#include <cstdint>
#include <span>

/// Adapters are searched on buses and at device numbers from 0 to these, as function 0.
inline constexpr std::uint32_t QFU_LAST_BUS = 63;
inline constexpr std::uint32_t QFU_LAST_DEVICE = 15;

/// The vendor of most adapters.
inline constexpr std::uint16_t QFU_USUAL_VENDOR = 0x1E5D;

/// One kind of adapter that the program serves.
struct QFU_DEVICE_ENTRY {
    std::uint16_t vendor_id;
    std::uint16_t device_id;
    std::uint8_t flash_if; ///< QFU_FLASH_IF_*
    std::uint8_t generation;
    std::uint8_t port_count; ///< SATA ports
    QFU_DETECT detect;       ///< may be null
};

/// The supported adapters, in the order in which they are searched and listed.
std::span<const QFU_DEVICE_ENTRY> qfu_supported_adapters();

/// Reads one 16-bit configuration register; `address` carries the register in its low byte.
/// @returns the value, or QFU_READ_FAILED_16
std::uint16_t qfu_pci_read16(platform::RootBridge* bridge, std::uint64_t address);

/// Searches PCI for the adapters of one row and appends them to the context's list.
/// @returns EFI_SUCCESS, also when the user breaks the scan; EFI_UNSUPPORTED without a root bridge
EFI_STATUS qfu_scan_pci(const QFU_DEVICE_ENTRY& row, QFU_CONTEXT& context);

/// Fills the context's adapter list with the adapters of `table` that the request's vendor and
/// device filters let through, row by row.
void qfu_discover(std::span<const QFU_DEVICE_ENTRY> table, QFU_CONTEXT& context);
