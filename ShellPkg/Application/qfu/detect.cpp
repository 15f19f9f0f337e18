#include "detect.h"

#include "adapter.h"
#include "console.h"
#include "spi_flash.h"
#include "uefi_nor.h"

namespace {

/// How the registers of one interface kind are reached.
struct Access {
    std::uint8_t flash_if;
    std::uint32_t (*read)(QFU_ADAPTER&, std::uint32_t);
    void (*write)(QFU_ADAPTER&, std::uint32_t, std::uint32_t);
    std::uint8_t reg_bar;
    bool has_aux; ///< BAR 0 is the NOR window
};

constexpr Access ACCESS[] = {
    {QFU_FLASH_IF_INDEXED, qfu_spireg_read_indexed, qfu_spireg_write_indexed, 5, false},
    {QFU_FLASH_IF_BAR2,    qfu_spireg_read_bar2,    qfu_spireg_write_bar2,    2, true },
    {QFU_FLASH_IF_BAR0,    qfu_spireg_read_bar0,    qfu_spireg_write_bar0,    0, false},
};

const Access* find_access(std::uint8_t flash_if) {
    for (const Access& access : ACCESS) {
        if (access.flash_if == flash_if) {
            return &access;
        }
    }
    return nullptr;
}

/// An interface kind that nothing serves: no operations, no registers.
std::uint32_t reject(QFU_ADAPTER& adapter, QFU_FLASH_SLOT& slot) {
    const void* chip = slot.chip;
    const std::uintptr_t chip_type = slot.chip_type;
    slot = {};
    slot.chip = chip;
    slot.chip_type = chip_type;
    adapter.reg_base = 0;
    adapter.aux_base = 0;
    return QFU_FAILED;
}

/// Identifies the chip behind the selected slot; the selection stays on it only when there is one.
void probe(QFU_ADAPTER& adapter, const char* missing, std::uint32_t number) {
    const QFU_FLASH_SLOT& slot = *adapter.current_slot;
    slot.probe(adapter);
    if (slot.chip == nullptr) {
        qfu_print(missing, number);
        adapter.current_slot = nullptr;
    }
}

} // namespace

std::uint32_t qfu_spi_attach(QFU_ADAPTER& adapter) {
    QFU_FLASH_SLOT& slot = adapter.slot[1];
    const Access* access = find_access(adapter.flash_if);
    if (access == nullptr) {
        return reject(adapter, slot);
    }
    slot.reg_read = access->read;
    slot.reg_write = access->write;
    adapter.reg_base = adapter.bar[access->reg_bar];
    adapter.aux_base = access->has_aux ? adapter.bar[0] : 0;
    qfu_spiflash_install(slot);
    adapter.current_slot = &slot;
    return 0;
}

std::uint32_t qfu_nor_attach(QFU_ADAPTER& adapter) {
    QFU_FLASH_SLOT& slot = adapter.slot[0];
    if (adapter.flash_if != QFU_FLASH_IF_BAR2) {
        return reject(adapter, slot);
    }
    qfu_norflash_install(slot);
    adapter.reg_base = adapter.bar[2];
    adapter.aux_base = adapter.bar[0];
    adapter.current_slot = &slot;
    return 0;
}

std::uint32_t qfu_spi_detect(QFU_ADAPTER& adapter) {
    if (qfu_spi_attach(adapter) != 0) {
        return QFU_FAILED;
    }
    probe(adapter, "\nNo found any SPI Flash dev...%d\n", 1327);
    return 0;
}

std::uint32_t qfu_nor_detect(QFU_ADAPTER& adapter) {
    if (adapter.flash_if == QFU_FLASH_IF_BAR2) {
        qfu_spi_detect(adapter);
    }
    if (qfu_nor_attach(adapter) != 0) {
        return QFU_FAILED;
    }
    probe(adapter, "\nNo found any NOR Flash dev...%d\n", 950);
    return 0;
}
