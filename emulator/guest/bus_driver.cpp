// A boot-service driver for guests whose QEMU cannot put an adapter of another process on the bus.
// It stands in front of the firmware's PCI root bridge and sends the adapters' configuration and
// memory cycles through a mailbox. Load it before the program.
#include "mailbox.h"
#include "uefi/efi.h"

namespace {

using RootBridge = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL;
using Width = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH;
using emulator::mailbox::Cycle;
using emulator::mailbox::Mailbox;

struct Driver {
    EFI_BOOT_SERVICES* boot;
    Mailbox* mailbox;
    volatile UINT32* doorbell;
    RootBridge* bridge;
    UINT64 function; ///< the shared memory's, as the root bridge's functions take it
    EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS config; ///< the firmware's own
    EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS memory;
};
constinit Driver driver{};

/// How long an answer may take before the cycle fails.
constexpr UINT32 kLimitMicroseconds = 10'000'000;

EFI_STATUS ask(Cycle cycle, UINT64 address, UINT32 width, UINT32& value) {
    Mailbox& box = *driver.mailbox;
    const UINT32 number = box.asked.load(std::memory_order_relaxed) + 1;
    box.cycle.store(cycle, std::memory_order_relaxed);
    box.address.store(address, std::memory_order_relaxed);
    box.width.store(width, std::memory_order_relaxed);
    box.value.store(value, std::memory_order_relaxed);
    box.asked.store(number, std::memory_order_release);
    // The doorbell is memory of another kind: without a fence its write may overtake.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    *driver.doorbell = emulator::mailbox::kProcess << 16;
    for (UINT32 waited = 0; waited < kLimitMicroseconds; ++waited) {
        for (int look = 0; look < 100; ++look) {
            if (box.answered.load(std::memory_order_acquire) == number) {
                value = box.value.load(std::memory_order_relaxed);
                return EFI_SUCCESS;
            }
        }
        driver.boot->Stall(1);
    }
    return EFI_TIMEOUT;
}

/// Carries out a cycle for each of `count` units, at rising addresses. Like firmware it refuses
/// addresses that are no multiple of the unit.
EFI_STATUS ask_each(Cycle cycle, Width width, UINT64 address, UINTN count, void* buffer) {
    const bool is_read = cycle == Cycle::kConfigRead || cycle == Cycle::kMemoryRead;
    if (width > EfiPciIoWidthUint32) {
        return EFI_UNSUPPORTED;
    }
    const UINT32 bytes = 1U << width;
    if (address % bytes != 0) {
        return EFI_INVALID_PARAMETER;
    }
    auto* unit = static_cast<unsigned char*>(buffer);
    for (; count > 0; --count, address += bytes, unit += bytes) {
        UINT32 value = 0;
        for (UINT32 i = 0; !is_read && i < bytes; ++i) {
            value |= UINT32{unit[i]} << (8 * i);
        }
        const EFI_STATUS status = ask(cycle, address, bytes, value);
        if (status != EFI_SUCCESS) {
            return status;
        }
        for (UINT32 i = 0; is_read && i < bytes; ++i) {
            unit[i] = static_cast<unsigned char>(value >> (8 * i));
        }
    }
    return EFI_SUCCESS;
}

bool is_ours_in_config(UINT64 address) {
    const UINT32 count = driver.mailbox->function_count.load(std::memory_order_acquire);
    for (UINT32 i = 0; i < count && i < emulator::mailbox::kMostFunctions; ++i) {
        if ((address & 0xFFFFFF00) ==
            driver.mailbox->functions[i].load(std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

bool is_ours_in_memory(UINT64 address) {
    return address >= driver.mailbox->memory_first.load(std::memory_order_relaxed) &&
           address < driver.mailbox->memory_end.load(std::memory_order_relaxed);
}

EFI_STATUS EFIAPI config_read(RootBridge* bridge, Width width, UINT64 address, UINTN count,
                              void* buffer) {
    return is_ours_in_config(address) ? ask_each(Cycle::kConfigRead, width, address, count, buffer)
                                      : driver.config.Read(bridge, width, address, count, buffer);
}

EFI_STATUS EFIAPI config_write(RootBridge* bridge, Width width, UINT64 address, UINTN count,
                               void* buffer) {
    return is_ours_in_config(address) ? ask_each(Cycle::kConfigWrite, width, address, count, buffer)
                                      : driver.config.Write(bridge, width, address, count, buffer);
}

EFI_STATUS EFIAPI memory_read(RootBridge* bridge, Width width, UINT64 address, UINTN count,
                              void* buffer) {
    return is_ours_in_memory(address) ? ask_each(Cycle::kMemoryRead, width, address, count, buffer)
                                      : driver.memory.Read(bridge, width, address, count, buffer);
}

EFI_STATUS EFIAPI memory_write(RootBridge* bridge, Width width, UINT64 address, UINTN count,
                               void* buffer) {
    return is_ours_in_memory(address) ? ask_each(Cycle::kMemoryWrite, width, address, count, buffer)
                                      : driver.memory.Write(bridge, width, address, count, buffer);
}

UINT32 config_dword(RootBridge* bridge, UINT64 address) {
    UINT32 value = 0;
    return bridge->Pci.Read(bridge, EfiPciIoWidthUint32, address, 1, &value) == EFI_SUCCESS ? value
                                                                                            : 0;
}

/// Lets the shared memory answer; firmware leaves that to a device's driver.
void turn_memory_on(RootBridge* bridge, UINT64 function) {
    constexpr UINT64 kCommand = 0x04;
    constexpr UINT32 kMemoryDecoding = 0x2;
    UINT32 command = config_dword(bridge, function | kCommand) | kMemoryDecoding;
    bridge->Pci.Write(bridge, EfiPciIoWidthUint32, function | kCommand, 1, &command);
}

EFI_GUID ready_to_boot_guid = {
    0x7ce88fb3, 0x4bd7, 0x4679, {0x87, 0xa8, 0xa8, 0xd8, 0xde, 0xe5, 0x0d, 0x2b}
};

void EFIAPI before_boot(EFI_EVENT /*event*/, void* /*context*/) {
    turn_memory_on(driver.bridge, driver.function);
}

/// A driver out of an expansion ROM starts early: firmware turns the memory off again behind it.
EFI_STATUS turn_memory_on_before_boot() {
    EFI_EVENT event = nullptr;
    return driver.boot->CreateEventEx(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, before_boot, nullptr,
                                      &ready_to_boot_guid, &event);
}

/// Finds the shared memory on bus 0 and lets it answer.
bool find_mailbox(RootBridge* bridge) {
    for (UINT64 device = 0; device < 32; ++device) {
        const UINT64 function = device << 16;
        if (config_dword(bridge, function) != emulator::mailbox::kVendorAndDevice) {
            continue;
        }
        turn_memory_on(bridge, function);
        const UINT64 registers = config_dword(bridge, function | 0x10) & ~0xFU;
        const UINT64 memory = UINT64{config_dword(bridge, function | 0x1C)} << 32 |
                              (config_dword(bridge, function | 0x18) & ~0xFU);
        if (registers == 0 || memory == 0) {
            return false; // firmware had no room for it
        }
        driver.doorbell =
            reinterpret_cast<volatile UINT32*>(registers + emulator::mailbox::kDoorbell);
        driver.mailbox = reinterpret_cast<Mailbox*>(memory);
        driver.bridge = bridge;
        driver.function = function;
        return driver.mailbox->ready.load(std::memory_order_acquire) == emulator::mailbox::kReady;
    }
    return false;
}

/// On the image's handle when a driver stands in front of it already.
EFI_GUID in_front_guid = {
    0x5d1f6a0c, 0x52c7, 0x4f0e, {0x9b, 0x5e, 0x0f, 0x2e, 0x61, 0x2a, 0x7d, 0x94}
};

bool is_in_front() {
    void* found = nullptr;
    return driver.boot->LocateProtocol(&in_front_guid, nullptr, &found) == EFI_SUCCESS;
}

} // namespace

/// @returns EFI_NOT_FOUND when nobody serves adapters to this guest, EFI_ALREADY_STARTED when an
/// earlier driver goes on serving them
extern "C" EFI_STATUS EFIAPI bus_driver_entry(EFI_HANDLE image, EFI_SYSTEM_TABLE* table) {
    driver.boot = table->BootServices;
    EFI_GUID protocol = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_GUID;
    void* found = nullptr;
    EFI_STATUS status = driver.boot->LocateProtocol(&protocol, nullptr, &found);
    if (status != EFI_SUCCESS) {
        return status;
    }
    auto* bridge = static_cast<RootBridge*>(found);
    if (!find_mailbox(bridge)) {
        return EFI_NOT_FOUND;
    }
    UINT32 nothing = 0;
    status = ask(Cycle::kDriverLoaded, 0, 4, nothing);
    if (status != EFI_SUCCESS) {
        return status;
    }
    if (is_in_front()) {
        return EFI_ALREADY_STARTED;
    }
    status = driver.boot->InstallProtocolInterface(&image, &in_front_guid, EFI_NATIVE_INTERFACE,
                                                   nullptr);
    if (status != EFI_SUCCESS) {
        return status;
    }
    status = turn_memory_on_before_boot();
    if (status != EFI_SUCCESS) {
        return status;
    }
    driver.config = bridge->Pci;
    driver.memory = bridge->Mem;
    bridge->Pci = {config_read, config_write};
    bridge->Mem = {memory_read, memory_write};
    return EFI_SUCCESS;
}
