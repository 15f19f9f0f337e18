#include "discover.h"

#include "context.h"
#include "detect.h"
#include "platform/shell.h"

namespace {

/// Configuration registers.
constexpr std::uint64_t VENDOR_ID = 0x00;
constexpr std::uint64_t DEVICE_ID = 0x02;
constexpr std::uint64_t CLASS_REVISION = 0x08;
constexpr std::uint64_t BAR_0 = 0x10;
constexpr std::uint64_t SUBSYSTEM_VENDOR_ID = 0x2C;
constexpr std::uint64_t SUBSYSTEM_ID = 0x2E;

constexpr QFU_DEVICE_ENTRY SUPPORTED_ADAPTERS[] = {
  // vendor, device, interface, generation, ports, detect
    {0x1F7E, 0xC701, QFU_FLASH_IF_BAR2,    4, 8,  qfu_nor_detect},
    {0x1F7E, 0xC702, QFU_FLASH_IF_INDEXED, 3, 2,  qfu_spi_detect},
    {0x1E5D, 0xC703, QFU_FLASH_IF_BAR2,    4, 8,  qfu_nor_detect},
    {0x1E5D, 0xC704, QFU_FLASH_IF_BAR2,    4, 4,  qfu_nor_detect},
    {0x1E5D, 0xC705, QFU_FLASH_IF_BAR0,    5, 8,  qfu_spi_detect},
    {0x1E5D, 0xC706, QFU_FLASH_IF_BAR0,    5, 8,  qfu_spi_detect},
    {0x1E5D, 0xC707, QFU_FLASH_IF_BAR0,    5, 16, qfu_spi_detect},
    {0x1E5D, 0xC708, QFU_FLASH_IF_BAR0,    5, 16, qfu_spi_detect},
    {0x1E5D, 0xC709, QFU_FLASH_IF_INDEXED, 3, 2,  qfu_spi_detect},
    {0x1E5D, 0xC70A, QFU_FLASH_IF_INDEXED, 3, 4,  qfu_spi_detect},
    {0x1E5D, 0xC70B, QFU_FLASH_IF_INDEXED, 3, 4,  qfu_spi_detect},
    {0x1E5D, 0xC70C, QFU_FLASH_IF_INDEXED, 3, 2,  qfu_spi_detect},
    {0x1E5D, 0xC70D, QFU_FLASH_IF_INDEXED, 3, 4,  qfu_spi_detect},
    {0x1E5D, 0xC70E, QFU_FLASH_IF_INDEXED, 3, 4,  qfu_spi_detect},
    {0x1E5D, 0xC70F, QFU_FLASH_IF_INDEXED, 2, 2,  qfu_spi_detect},
    {0x1E5D, 0xC710, QFU_FLASH_IF_INDEXED, 2, 2,  qfu_spi_detect},
    {0x1E5D, 0xC711, QFU_FLASH_IF_INDEXED, 2, 2,  qfu_spi_detect},
    {0x1E5D, 0xC712, QFU_FLASH_IF_INDEXED, 2, 2,  qfu_spi_detect},
    {0x1E5D, 0xC713, QFU_FLASH_IF_INDEXED, 2, 2,  qfu_spi_detect},
    {0x1E5D, 0xC714, QFU_FLASH_IF_INDEXED, 2, 2,  qfu_spi_detect},
    {0x1E5D, 0xC715, QFU_FLASH_IF_INDEXED, 2, 2,  qfu_spi_detect},
    {0x1E5D, 0xC716, QFU_FLASH_IF_INDEXED, 2, 2,  qfu_spi_detect},
    {0x1E5D, 0xC717, QFU_FLASH_IF_INDEXED, 1, 2,  qfu_spi_detect},
};

/// A function that two rows match would be listed twice.
constexpr bool rows_are_unique(std::span<const QFU_DEVICE_ENTRY> rows) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
        for (std::size_t j = i + 1; j < rows.size(); ++j) {
            if (rows[i].vendor_id == rows[j].vendor_id && rows[i].device_id == rows[j].device_id) {
                return false;
            }
        }
    }
    return true;
}
static_assert(rows_are_unique(SUPPORTED_ADAPTERS));

std::uint32_t pci_read32(platform::RootBridge* bridge, std::uint64_t address) {
    std::uint32_t value = 0;
    return platform::config_read32(bridge, address, value) == EFI_SUCCESS ? value
                                                                          : QFU_READ_FAILED_32;
}

/// Base address register `i`, taken by itself: the high half of a 64-bit pair is a register of its
/// own.
std::uint32_t read_bar(platform::RootBridge* bridge, std::uint64_t function, std::size_t i) {
    const std::uint32_t low = qfu_pci_read16(bridge, function | (BAR_0 + 4 * i));
    const std::uint32_t high = qfu_pci_read16(bridge, function | (BAR_0 + 4 * i + 2));
    return ((high << 16) | low) & 0xFFFFFFF0;
}

void record(const QFU_DEVICE_ENTRY& row, platform::RootBridge* bridge, std::uint64_t bus,
            std::uint64_t device, QFU_CONTEXT& context) {
    QFU_ADAPTER& adapter = context.adapters[context.adapter_count];
    const std::uint64_t function = bus << 24 | device << 16;
    adapter.context = &context;
    adapter.vendor_id = row.vendor_id;
    adapter.device_id = row.device_id;
    adapter.bus = static_cast<std::uint16_t>(bus);
    adapter.dev = static_cast<std::uint16_t>(device);
    adapter.func = 0;
    adapter.pci_address = function;
    adapter.port_count = row.port_count;
    adapter.flash_if = row.flash_if;
    adapter.generation = row.generation;
    adapter.detect = row.detect;
    adapter.index = static_cast<std::uint8_t>(context.adapter_count);
    for (std::size_t i = 0; i < adapter.bar.size(); ++i) {
        adapter.bar[i] = read_bar(bridge, function, i);
    }
    adapter.subsystem_id = qfu_pci_read16(bridge, function | SUBSYSTEM_ID);
    adapter.class_rev = pci_read32(bridge, function | CLASS_REVISION);
    adapter.subsystem_vendor_id = qfu_pci_read16(bridge, function | SUBSYSTEM_VENDOR_ID);
    adapter.root_bridge = bridge;
    if (adapter.detect != nullptr) {
        adapter.detect(adapter);
    }
    ++context.adapter_count;
}

bool passes_filters(const QFU_DEVICE_ENTRY& row, const QFU_CONTEXT& context) {
    return (!context.has(QFU_REQ_VENDOR) || context.vendor_filter == row.vendor_id) &&
           (!context.has(QFU_REQ_DEVICE) || context.device_filter == row.device_id);
}

} // namespace

std::span<const QFU_DEVICE_ENTRY> qfu_supported_adapters() {
    return SUPPORTED_ADAPTERS;
}

std::uint16_t qfu_pci_read16(platform::RootBridge* bridge, std::uint64_t address) {
    std::uint16_t value = 0;
    return platform::config_read16(bridge, address, value) == EFI_SUCCESS ? value
                                                                          : QFU_READ_FAILED_16;
}

EFI_STATUS qfu_scan_pci(const QFU_DEVICE_ENTRY& row, QFU_CONTEXT& context) {
    if (context.adapter_count >= QFU_MAX_ADAPTERS) {
        return EFI_SUCCESS;
    }
    platform::RootBridge* bridge = platform::root_bridge();
    if (bridge == nullptr) {
        return EFI_UNSUPPORTED;
    }
    for (std::uint64_t bus = 0; bus <= QFU_LAST_BUS; ++bus) {
        for (std::uint64_t device = 0; device <= QFU_LAST_DEVICE; ++device) {
            if (platform::break_requested()) {
                return EFI_SUCCESS;
            }
            const std::uint64_t function = bus << 24 | device << 16;
            const std::uint16_t vendor_id = qfu_pci_read16(bridge, function | VENDOR_ID);
            const std::uint16_t device_id = qfu_pci_read16(bridge, function | DEVICE_ID);
            if (vendor_id != row.vendor_id || device_id != row.device_id) {
                continue;
            }
            record(row, bridge, bus, device, context);
            if (context.adapter_count >= QFU_MAX_ADAPTERS) {
                return EFI_SUCCESS;
            }
        }
    }
    return EFI_SUCCESS;
}

void qfu_discover(std::span<const QFU_DEVICE_ENTRY> table, QFU_CONTEXT& context) {
    context.adapter_count = 0;
    for (const QFU_DEVICE_ENTRY& row : table) {
        if (!passes_filters(row, context)) {
            continue;
        }
        qfu_scan_pci(row, context);
        if (context.adapter_count >= QFU_MAX_ADAPTERS) {
            return;
        }
    }
}
