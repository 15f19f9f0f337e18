#include "pci.h"

#include "system.h"

namespace platform {
namespace {

template <class Unit>
constexpr EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH WIDTH = sizeof(Unit) == 2 ? EfiPciIoWidthUint16
                                                                          : EfiPciIoWidthUint32;

template <class Unit>
EFI_STATUS read_unit(RootBridge* bridge, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_IO_MEM read,
                     std::uint64_t address, Unit& value) {
    value = 0;
    const EFI_STATUS status = read(bridge, WIDTH<Unit>, address, 1, &value);
    if (status != EFI_SUCCESS) {
        ++system().refused_reads;
    }
    return status;
}

} // namespace

RootBridge* root_bridge() {
    EFI_GUID protocol = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_GUID;
    void* interface = nullptr;
    if (system().boot->LocateProtocol(&protocol, nullptr, &interface) != EFI_SUCCESS) {
        return nullptr;
    }
    return static_cast<RootBridge*>(interface);
}

EFI_STATUS config_read16(RootBridge* bridge, std::uint64_t address, std::uint16_t& value) {
    return read_unit(bridge, bridge->Pci.Read, address, value);
}

EFI_STATUS config_read32(RootBridge* bridge, std::uint64_t address, std::uint32_t& value) {
    return read_unit(bridge, bridge->Pci.Read, address, value);
}

EFI_STATUS memory_read16(RootBridge* bridge, std::uint64_t address, std::uint16_t& value) {
    return read_unit(bridge, bridge->Mem.Read, address, value);
}

EFI_STATUS memory_read32(RootBridge* bridge, std::uint64_t address, std::uint32_t& value) {
    return read_unit(bridge, bridge->Mem.Read, address, value);
}

EFI_STATUS memory_write32(RootBridge* bridge, std::uint64_t address, std::uint32_t value) {
    const EFI_STATUS status = bridge->Mem.Write(bridge, WIDTH<std::uint32_t>, address, 1, &value);
    if (status != EFI_SUCCESS) {
        ++system().refused_writes;
    }
    return status;
}

RefusedAccesses refused_accesses() {
    return {system().refused_reads, system().refused_writes};
}

} // namespace platform
