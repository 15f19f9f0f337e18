#include "memory_disk.h"

#include <cstring>

namespace {

constexpr std::uint32_t kBlock = 512;

MemoryDisk volume;

/// The bytes that a transfer means, or null when it goes past the end or is no whole number of
/// blocks.
std::uint8_t* bytes_of(EFI_LBA block, UINTN size) {
    const std::uint64_t blocks = volume.size / kBlock;
    if (size % kBlock != 0 || block > blocks || size / kBlock > blocks - block) {
        return nullptr;
    }
    return volume.bytes + block * kBlock;
}

EFI_STATUS EFIAPI reset(EFI_BLOCK_IO* /*disk*/, BOOLEAN /*extended*/) {
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI read_blocks(EFI_BLOCK_IO* /*disk*/, UINT32 /*media_id*/, EFI_LBA block,
                              UINTN size, void* to) {
    const std::uint8_t* from = bytes_of(block, size);
    if (from == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    std::memcpy(to, from, size);
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI write_blocks(EFI_BLOCK_IO* /*disk*/, UINT32 /*media_id*/, EFI_LBA block,
                               UINTN size, void* from) {
    std::uint8_t* to = bytes_of(block, size);
    if (to == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    std::memcpy(to, from, size);
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI flush(EFI_BLOCK_IO* /*disk*/) {
    return EFI_SUCCESS;
}

EFI_BLOCK_IO_MEDIA media{};
EFI_BLOCK_IO device{};

/// A device path of one node that no other device has.
struct [[gnu::packed]] DevicePath {
    VENDOR_DEVICE_PATH vendor;
    EFI_DEVICE_PATH end;
};
DevicePath path = {
    {{HARDWARE_DEVICE_PATH, HW_VENDOR_DP, {sizeof(VENDOR_DEVICE_PATH), 0}},
     {0x6A2D1C57, 0x9F04, 0x4B8E, {0x8C, 0x31, 0x2E, 0x75, 0xD0, 0x46, 0xB9, 0x1F}}                     },
    { END_DEVICE_PATH_TYPE,                                       END_ENTIRE_DEVICE_PATH_SUBTYPE, {sizeof(EFI_DEVICE_PATH), 0}}
};

EFI_GUID block_io_guid = BLOCK_IO_PROTOCOL;
EFI_GUID device_path_guid = DEVICE_PATH_PROTOCOL;

} // namespace

EFI_HANDLE install(const MemoryDisk& disk, EFI_BOOT_SERVICES* boot) {
    volume = disk;
    media.MediaPresent = TRUE;
    media.BlockSize = kBlock;
    media.LastBlock = disk.size / kBlock - 1;
    device = {EFI_BLOCK_IO_PROTOCOL_REVISION, &media, reset, read_blocks, write_blocks, flush};
    EFI_HANDLE handle = nullptr;
    if (EFI_ERROR(boot->InstallProtocolInterface(&handle, &device_path_guid, EFI_NATIVE_INTERFACE,
                                                 &path)) ||
        EFI_ERROR(boot->InstallProtocolInterface(&handle, &block_io_guid, EFI_NATIVE_INTERFACE,
                                                 &device)) ||
        EFI_ERROR(boot->ConnectController(handle, nullptr, nullptr, TRUE))) {
        return nullptr;
    }
    return handle;
}

void remove(EFI_HANDLE handle, EFI_BOOT_SERVICES* boot) {
    boot->DisconnectController(handle, nullptr, nullptr);
    boot->UninstallProtocolInterface(handle, &block_io_guid, &device);
    boot->UninstallProtocolInterface(handle, &device_path_guid, &path);
}
