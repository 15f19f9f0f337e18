// Configuration and memory cycles through the PCI root bridge I/O protocol.
#pragma once

#include "efi.h"

#include <cstdint>

namespace platform {

using RootBridge = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL;

/// The first root bridge that the firmware names, or null when there is none.
RootBridge* root_bridge();

/// Configuration reads; `address` is bus << 24 | device << 16 | function << 8 | register.
/// @returns the firmware's status; `value` is 0 when nothing was read
EFI_STATUS config_read16(RootBridge* bridge, std::uint64_t address, std::uint16_t& value);
EFI_STATUS config_read32(RootBridge* bridge, std::uint64_t address, std::uint32_t& value);

/// Memory cycles of one 16- or 32-bit unit at a bus address that is a multiple of the unit.
/// @returns the firmware's status; `value` is 0 when nothing was read
EFI_STATUS memory_read16(RootBridge* bridge, std::uint64_t address, std::uint16_t& value);
EFI_STATUS memory_read32(RootBridge* bridge, std::uint64_t address, std::uint32_t& value);
EFI_STATUS memory_write32(RootBridge* bridge, std::uint64_t address, std::uint32_t value);

/// Configuration and memory cycles that the firmware refused since the start of the run. A refused
/// write reached no register; what a refused read returned was in no register.
struct RefusedAccesses {
    std::uint32_t reads;
    std::uint32_t writes;

    bool operator==(const RefusedAccesses&) const = default;
};
RefusedAccesses refused_accesses();

} // namespace platform
