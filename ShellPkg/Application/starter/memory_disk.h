// A volume in memory as a device that firmware and shell read and write.
#pragma once

#include "efi.h"

#include <cstdint>

/// Bytes of a volume. They belong to firmware's memory until the machine starts again.
struct MemoryDisk {
    std::uint8_t* bytes = nullptr;
    std::uint64_t size = 0; ///< 0: there is none
};

/// Makes the volume a block device and lets firmware's drivers find the file system on it. There
/// can be one. @returns its handle, or null
EFI_HANDLE install(const MemoryDisk& disk, EFI_BOOT_SERVICES* boot);

/// Takes the device away from firmware again, which forgets this program's code when it returns.
void remove(EFI_HANDLE handle, EFI_BOOT_SERVICES* boot);
