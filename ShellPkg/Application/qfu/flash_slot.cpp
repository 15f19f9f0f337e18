#include "flash_slot.h"

#include "adapter.h"
#include "context.h"
#include "spi_list.h"

namespace {

constexpr std::uint32_t DATA_REGISTER = QFU_INDEX_REGISTER + 4;
constexpr std::uint32_t INDEX_SPI_SPACE = 0x06000000; ///< the SPI controller behind the index
constexpr std::uint8_t GENERATION_BARE_INDEX = 2;     ///< has nothing else behind the index

/// Register windows of kinds 2 and 4.
constexpr std::uint32_t BAR2_SPI_WINDOW = 0xC800;
constexpr std::uint32_t BAR0_SPI_WINDOW = 0x1C800;

void select_indexed(QFU_ADAPTER& adapter, std::uint32_t reg) {
    const std::uint32_t space = adapter.generation == GENERATION_BARE_INDEX ? 0 : INDEX_SPI_SPACE;
    qfu_mem_write32(adapter.root_bridge, adapter.reg_base + QFU_INDEX_REGISTER, reg | space);
}

} // namespace

std::uint32_t qfu_mem_read32(platform::RootBridge* bridge, std::uint32_t address) {
    std::uint32_t value = 0;
    return platform::memory_read32(bridge, address, value) == EFI_SUCCESS ? value
                                                                          : QFU_READ_FAILED_32;
}

std::uint16_t qfu_mem_read16(platform::RootBridge* bridge, std::uint32_t address) {
    std::uint16_t value = 0;
    return platform::memory_read16(bridge, address, value) == EFI_SUCCESS ? value
                                                                          : QFU_READ_FAILED_16;
}

EFI_STATUS qfu_mem_write32(platform::RootBridge* bridge, std::uint32_t address,
                           std::uint32_t value) {
    return platform::memory_write32(bridge, address, value);
}

std::uint32_t qfu_spireg_read_indexed(QFU_ADAPTER& adapter, std::uint32_t reg) {
    select_indexed(adapter, reg);
    return qfu_mem_read32(adapter.root_bridge, adapter.reg_base + DATA_REGISTER);
}

void qfu_spireg_write_indexed(QFU_ADAPTER& adapter, std::uint32_t reg, std::uint32_t value) {
    select_indexed(adapter, reg);
    qfu_mem_write32(adapter.root_bridge, adapter.reg_base + DATA_REGISTER, value);
}

std::uint32_t qfu_spireg_read_bar2(QFU_ADAPTER& adapter, std::uint32_t reg) {
    return qfu_mem_read32(adapter.root_bridge, adapter.reg_base + BAR2_SPI_WINDOW + reg);
}

void qfu_spireg_write_bar2(QFU_ADAPTER& adapter, std::uint32_t reg, std::uint32_t value) {
    qfu_mem_write32(adapter.root_bridge, adapter.reg_base + BAR2_SPI_WINDOW + reg, value);
}

std::uint32_t qfu_spireg_read_bar0(QFU_ADAPTER& adapter, std::uint32_t reg) {
    return qfu_mem_read32(adapter.root_bridge, adapter.reg_base + BAR0_SPI_WINDOW + reg);
}

void qfu_spireg_write_bar0(QFU_ADAPTER& adapter, std::uint32_t reg, std::uint32_t value) {
    qfu_mem_write32(adapter.root_bridge, adapter.reg_base + BAR0_SPI_WINDOW + reg, value);
}

QFU_FLASH_SLOT* qfu_current_slot(QFU_ADAPTER& adapter) {
    if (adapter.current_slot == nullptr) {
        adapter.current_slot = &adapter.slot[adapter.flash_if == QFU_FLASH_IF_BAR2 ? 0 : 1];
    }
    if (adapter.context->has(QFU_REQ_CHIP_SELECT)) {
        adapter.current_slot = &adapter.slot[adapter.context->chip_select];
    }
    return adapter.current_slot;
}

std::uint32_t qfu_flash_size(QFU_ADAPTER& adapter) {
    const QFU_FLASH_SLOT* slot = qfu_current_slot(adapter);
    if (slot->chip == nullptr) {
        return 0;
    }
    switch (slot->chip_type) {
    case QFU_CHIP_NOR:
        return static_cast<const QFU_NOR_CHIP*>(slot->chip)->whole_size;
    case QFU_CHIP_SPI:
        return static_cast<const QFU_CHIP_ENTRY*>(slot->chip)->whole_size;
    default:
        return 0;
    }
}
