// The program that firmware starts from a boot medium. It sees to it that the shell stands on a
// volume that can be written, and starts it there without the shell's count-down.
//
// On a stick that is the volume it was loaded from. A CD and virtual media cannot be written, so
// that volume is copied into memory. Over the network there is no volume at all; then the image
// carries one in a section of its own, which is used where it was loaded.
#include "efi.h"
#include "machine_name.h"
#include "memory_disk.h"
#include "shell_variable.h"
#include "sums.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace {

// One medium has a folder for each processor.
constexpr char16_t kFolder[] = QFU_FOLDER;
constexpr char16_t kShell[] = QFU_FOLDER u"\\shell.efi";
// The first word stands for the program's name. "-delay:0" is refused by the shell.
constexpr char16_t kLoadOptions[] = u"shell.efi -delay 0";
constexpr char kVolumeSection[] = ".volume";

EFI_GUID loaded_image_guid = LOADED_IMAGE_PROTOCOL;
EFI_GUID block_io_guid = BLOCK_IO_PROTOCOL;
EFI_GUID device_path_guid = DEVICE_PATH_PROTOCOL;

template <class T>
T* protocol_of(EFI_BOOT_SERVICES* boot, EFI_HANDLE handle, EFI_GUID& guid) {
    void* found = nullptr;
    if (handle == nullptr || EFI_ERROR(boot->HandleProtocol(handle, &guid, &found))) {
        return nullptr;
    }
    return static_cast<T*>(found);
}

template <class T>
T read(const std::uint8_t* at) {
    T value;
    __builtin_memcpy(&value, at, sizeof value);
    return value;
}

/// The volume that the image carries in its section; empty without one. The offsets are those of
/// the PE format.
MemoryDisk carried_volume(const EFI_LOADED_IMAGE& image) {
    constexpr std::size_t kOffsetOfHeader = 0x3C;
    constexpr std::size_t kSectionSize = 40;
    const auto* base = static_cast<std::uint8_t*>(image.ImageBase);
    const std::uint8_t* header = base + read<std::uint32_t>(base + kOffsetOfHeader);
    const auto sections = read<std::uint16_t>(header + 6);
    const std::uint8_t* section = header + 24 + read<std::uint16_t>(header + 20);
    for (unsigned i = 0; i < sections; ++i, section += kSectionSize) {
        if (std::memcmp(section, kVolumeSection, sizeof kVolumeSection) == 0) {
            return {static_cast<std::uint8_t*>(image.ImageBase) + read<std::uint32_t>(section + 12),
                    read<std::uint32_t>(section + 16)};
        }
    }
    return {};
}

/// The size of the FAT volume in bytes, as its first sector gives it. A CD's partition can be
/// larger than that.
std::uint64_t volume_size(const std::uint8_t* first_sector) {
    const std::uint64_t few = read<std::uint16_t>(first_sector + 19);
    const std::uint64_t sectors = few != 0 ? few : read<std::uint32_t>(first_sector + 32);
    return sectors * read<std::uint16_t>(first_sector + 11);
}

/// A copy of the device's volume in memory; empty when it cannot be made.
MemoryDisk copy_volume(EFI_BOOT_SERVICES* boot, EFI_BLOCK_IO& device) {
    constexpr std::uint64_t kBlocksAtOnce = 64;
    const EFI_BLOCK_IO_MEDIA& media = *device.Media;
    void* first = nullptr;
    if (EFI_ERROR(boot->AllocatePool(EfiLoaderData, media.BlockSize, &first)) ||
        EFI_ERROR(device.ReadBlocks(&device, media.MediaId, 0, media.BlockSize, first))) {
        return {};
    }
    const std::uint64_t size = volume_size(static_cast<std::uint8_t*>(first));
    boot->FreePool(first);
    const std::uint64_t blocks = (size + media.BlockSize - 1) / media.BlockSize;
    EFI_PHYSICAL_ADDRESS memory = 0;
    if (blocks == 0 || blocks - 1 > media.LastBlock ||
        EFI_ERROR(boot->AllocatePages(AllocateAnyPages, EfiLoaderData,
                                      EFI_SIZE_TO_PAGES(blocks * media.BlockSize), &memory))) {
        return {};
    }
    auto* bytes = reinterpret_cast<std::uint8_t*>(memory);
    for (std::uint64_t block = 0; block < blocks; block += kBlocksAtOnce) {
        const std::uint64_t left = blocks - block;
        const std::uint64_t count = left < kBlocksAtOnce ? left : kBlocksAtOnce;
        if (EFI_ERROR(device.ReadBlocks(&device, media.MediaId, block, count * media.BlockSize,
                                        bytes + block * media.BlockSize))) {
            return {};
        }
    }
    return {bytes, size};
}

/// The device path of `file` on the device with the path `device`; null when memory is short.
EFI_DEVICE_PATH* path_of_file(EFI_BOOT_SERVICES* boot, const EFI_DEVICE_PATH* device,
                              const char16_t* file, std::size_t file_bytes) {
    std::size_t length = 0;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(device);
    while (bytes[length] != END_DEVICE_PATH_TYPE) {
        length += read<std::uint16_t>(bytes + length + 2);
    }
    void* memory = nullptr;
    if (EFI_ERROR(boot->AllocatePool(EfiLoaderData, length + file_bytes + 8, &memory))) {
        return nullptr;
    }
    auto* path = static_cast<std::uint8_t*>(memory);
    std::memcpy(path, device, length);
    const auto node = static_cast<std::uint16_t>(file_bytes + 4);
    const EFI_DEVICE_PATH head = {
        MEDIA_DEVICE_PATH,
        MEDIA_FILEPATH_DP,
        {static_cast<std::uint8_t>(node), static_cast<std::uint8_t>(node >> 8)}
    };
    const EFI_DEVICE_PATH end = {
        END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, {sizeof(EFI_DEVICE_PATH), 0}
    };
    std::memcpy(path + length, &head, sizeof head);
    std::memcpy(path + length + sizeof head, file, file_bytes);
    std::memcpy(path + length + sizeof head + file_bytes, &end, sizeof end);
    return reinterpret_cast<EFI_DEVICE_PATH*>(path);
}

/// Starts the shell of the volume on `device`, and returns when it ends.
EFI_STATUS start_shell(EFI_BOOT_SERVICES* boot, EFI_HANDLE self, EFI_HANDLE device) {
    auto* device_path = protocol_of<EFI_DEVICE_PATH>(boot, device, device_path_guid);
    if (device_path == nullptr) {
        return EFI_NOT_FOUND;
    }
    EFI_DEVICE_PATH* path = path_of_file(boot, device_path, kShell, sizeof kShell);
    if (path == nullptr) {
        return EFI_OUT_OF_RESOURCES;
    }
    EFI_HANDLE shell = nullptr;
    EFI_STATUS status = boot->LoadImage(FALSE, self, path, nullptr, 0, &shell);
    boot->FreePool(path);
    if (EFI_ERROR(status)) {
        return status;
    }
    auto* image = protocol_of<EFI_LOADED_IMAGE>(boot, shell, loaded_image_guid);
    if (image != nullptr) {
        image->LoadOptions = const_cast<char16_t*>(kLoadOptions);
        image->LoadOptionsSize = sizeof kLoadOptions;
    }
    return boot->StartImage(shell, nullptr, nullptr);
}

void print(EFI_SYSTEM_TABLE* system, const char16_t* text) {
    system->ConOut->OutputString(system->ConOut,
                                 reinterpret_cast<CHAR16*>(const_cast<char16_t*>(text)));
}

EFI_STATUS stop(EFI_SYSTEM_TABLE* system, const char16_t* text, EFI_STATUS status) {
    print(system, u"qfu: ");
    print(system, text);
    print(system, u"\r\n");
    return status;
}

} // namespace

extern "C" EFI_STATUS EFIAPI starter_entry(EFI_HANDLE self, EFI_SYSTEM_TABLE* system) {
    EFI_BOOT_SERVICES* boot = system->BootServices;
    // Firmware resets a machine that stays in a boot program for five minutes.
    boot->SetWatchdogTimer(0, 0, 0, nullptr);
    const auto* image = protocol_of<EFI_LOADED_IMAGE>(boot, self, loaded_image_guid);
    if (image == nullptr) {
        return EFI_LOAD_ERROR;
    }
    // Static, since firmware keeps pointers to it.
    static MemoryDisk disk;
    disk = carried_volume(*image);
    EFI_HANDLE device = image->DeviceHandle;
    auto* block_io = protocol_of<EFI_BLOCK_IO>(boot, device, block_io_guid);
    if (disk.size == 0 && block_io != nullptr && block_io->Media->ReadOnly != FALSE) {
        print(system, u"qfu: the medium cannot be written; it is copied into memory.\r\n");
        disk = copy_volume(boot, *block_io);
        if (disk.size == 0) {
            return stop(system, u"the medium cannot be copied into memory.", EFI_DEVICE_ERROR);
        }
    }
    if (disk.size != 0) {
        device = install(disk, boot);
        if (device == nullptr) {
            return stop(system, u"firmware takes no volume in memory.", EFI_UNSUPPORTED);
        }
    }
    set_shell_variable(system, u"QfuFolder", std::span(kFolder).first(std::size(kFolder) - 1));
    tell_machine_name(system);
    check_sums(system, device);
    const EFI_STATUS status = start_shell(boot, self, device);
    if (disk.size != 0) {
        remove(device, boot);
    }
    switch (status) {
    case EFI_SUCCESS:
        return status;
    case EFI_SECURITY_VIOLATION:
    case EFI_ACCESS_DENIED:
        return stop(system, u"Secure Boot refuses the medium's shell.", status);
    default:
        return stop(system,
                    u"the medium's shell " QFU_FOLDER u"\\shell.efi did not start, or failed.",
                    status);
    }
}
