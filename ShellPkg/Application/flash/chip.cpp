#include "chip.h"

#include "qfu/bounds.h"
#include "qfu/context.h"
#include "qfu/platform/clock.h"
#include "qfu/platform/shell.h"
#include "qfu/spi_flash.h"
#include "qfu/uefi_nor.h"

#include <array>

namespace flash {
namespace {

/// Bytes that one call of a driver reads or programs. Even.
constexpr std::uint32_t RUN = 256;

constexpr std::uint32_t LARGEST_UNIT = 0x100000;

const QFU_CHIP_ENTRY& spi_record(const QFU_FLASH_SLOT& slot) {
    return *static_cast<const QFU_CHIP_ENTRY*>(slot.chip);
}

const QFU_NOR_CHIP& nor_record(const QFU_FLASH_SLOT& slot) {
    return *static_cast<const QFU_NOR_CHIP*>(slot.chip);
}

bool is_usable_unit(std::uint32_t size, std::uint32_t chip_size) {
    return size != 0 && size <= LARGEST_UNIT && (size & (size - 1)) == 0 && size <= chip_size &&
           chip_size % size == 0;
}

/// A step on the chip: breaks wait, pauses are limited, and refused accesses are seen.
class Step {
  public:
    explicit Step(std::uint64_t pauses_us) : before_(platform::refused_accesses()) {
        platform::limit_pauses(pauses_us);
    }
    bool undisturbed() const {
        return platform::refused_accesses() == before_ && !platform::pauses_spent();
    }

  private:
    platform::BreakShield shield_;
    platform::RefusedAccesses before_;
};

/// First byte from `at` on that is to be programmed.
std::size_t next_run(std::span<const std::uint8_t> data, std::size_t at) {
    while (at < data.size() && data[at] == 0xFF) {
        ++at;
    }
    return at;
}

} // namespace

Chip::Chip(QFU_ADAPTER& adapter, QFU_FLASH_SLOT& slot, std::uint32_t id)
    : adapter_(&adapter), slot_(&slot), id_(id),
      size_(slot.chip_type == QFU_CHIP_NOR ? nor_record(slot).whole_size
                                           : spi_record(slot).whole_size) {
    adapter.current_slot = &slot;
}

QFU_ERASE_UNIT Chip::unit(std::uint32_t address) const {
    if (has_words()) {
        return qfu_norflash_block(nor_record(*slot_).id_value, address);
    }
    const std::uint32_t size = spi_record(*slot_).sector_size;
    return {address & ~(size - 1), size};
}

QFU_ERASE_UNIT Chip::block(std::uint32_t address) const {
    const QFU_ERASE_UNIT smallest = unit(address);
    if (has_words() || spi_record(*slot_).block_size <= smallest.size) {
        return smallest;
    }
    const std::uint32_t size = spi_record(*slot_).block_size;
    return {address & ~(size - 1), size};
}

bool Chip::has_usable_units() const {
    return has_words() || (is_usable_unit(spi_record(*slot_).sector_size, size_) &&
                           is_usable_unit(spi_record(*slot_).block_size, size_));
}

bool Chip::read(std::uint32_t address, std::span<std::uint8_t> out) const {
    while (!out.empty()) {
        // NOR chips are read in whole words.
        std::array<std::uint8_t, RUN> words{};
        const std::uint32_t odd = has_words() ? address % 2 : 0;
        const auto count = qfu_smaller<std::size_t>(out.size(), RUN - odd);
        for (std::size_t i = 0; i < count; ++i) {
            words[odd + i] = out[i];
        }
        const Step step(READ_US);
        slot_->read(*adapter_, address - odd, words.data(),
                    odd + static_cast<std::uint32_t>(count));
        if (!step.undisturbed()) {
            return false;
        }
        for (std::size_t i = 0; i < count; ++i) {
            out[i] = words[odd + i];
        }
        out = out.subspan(count);
        address += static_cast<std::uint32_t>(count);
    }
    return true;
}

bool Chip::read_over(std::uint64_t address, std::span<const std::uint8_t> expected,
                     std::span<std::uint8_t> out) const {
    for (int attempt = 0; attempt < 3; ++attempt) {
        for (std::size_t i = 0; i < out.size(); ++i) {
            out[i] = static_cast<std::uint8_t>(~expected[i]);
        }
        if (read(static_cast<std::uint32_t>(address), out)) {
            return true;
        }
    }
    return false;
}

void Chip::unlock() const {
    if (has_words()) {
        return;
    }
    const Step step(CHANGE_US);
    // Parts of this family power up protected, each of them.
    constexpr std::uint32_t FAMILY = 0x25BF;
    if ((id_ & 0xFFFF) == FAMILY) {
        qfu_spiflash_unprotect_all(*adapter_);
    } else {
        qfu_spiflash_unlock(*adapter_);
    }
}

bool Chip::erase(QFU_ERASE_UNIT unit) const {
    const Step step(CHANGE_US);
    const bool smallest = unit.size == this->unit(unit.first).size;
    const auto erase = smallest ? slot_->erase_sector : slot_->erase_block;
    return erase(*adapter_, unit.first) == 0 && step.undisturbed();
}

bool Chip::program(std::uint32_t address, std::span<const std::uint8_t> data) const {
    for (std::size_t at = next_run(data, 0); at < data.size(); at = next_run(data, at)) {
        // The NOR driver skips words of FFFF itself.
        const std::size_t start = has_words() ? at & ~std::size_t{1} : at;
        const auto most = qfu_smaller<std::size_t>(data.size(), start + RUN);
        std::size_t end = has_words() ? most : at;
        while (end < most && data[end] != 0xFF) {
            ++end;
        }
        const Step step(CHANGE_US);
        const auto count = static_cast<std::uint32_t>(end - start);
        if (slot_->write(*adapter_, address + static_cast<std::uint32_t>(start), &data[start],
                         count) != 0 ||
            !step.undisturbed()) {
            return false;
        }
        at = end;
    }
    return true;
}

void Chip::settle() const {
    if (has_words()) {
        const Step step(CHANGE_US);
        // Programming nothing enters the bypass mode and leaves it, also one that a failed word
        // left on.
        slot_->write(*adapter_, 0, nullptr, 0);
        qfu_samsung_reset(*adapter_);
    }
}

bool Chip::answers() const {
    constexpr std::uint32_t BUSY = 0x1;
    std::uint32_t status = BUSY;
    if (!has_words() && (!read_status(status) || (status & BUSY) != 0)) {
        return false;
    }
    return read_identification(*adapter_, *slot_) == id_;
}

bool Chip::read_status(std::uint32_t& status) const {
    const Step step(READ_US);
    return qfu_spiflash_read_status(*adapter_, status) == 0 && step.undisturbed();
}

std::span<const std::uint32_t> id_opcodes(const QFU_ADAPTER& adapter) {
    static constexpr std::array<std::uint32_t, 1> WITHOUT_LIST = {0x9F};
    const QFU_CHIP_LIST* list = adapter.context->chip_list;
    if (list == nullptr) {
        return WITHOUT_LIST;
    }
    std::size_t count = 0;
    while (count < list->id_opcodes.size() && list->id_opcodes[count] != 0) {
        ++count;
    }
    return std::span(list->id_opcodes).first(count);
}

std::uint32_t read_identification(QFU_ADAPTER& adapter, const QFU_FLASH_SLOT& slot) {
    constexpr std::uint32_t NOTHING = 0xFFFFFFFF; // what a bus reads that nobody drives
    const Step step(IDENTIFICATION_US);
    std::uint32_t id = 0;
    if (slot.reg_read == nullptr) {
        // The identification is at the start of the chip, so the window must be there.
        std::array<std::uint8_t, 2> first{};
        slot.read(adapter, 0, first.data(), first.size());
        if (qfu_norflash_read_id(adapter, id) != 0) {
            id = 0;
        }
        qfu_samsung_reset(adapter);
        return id == NOTHING ? 0 : id;
    }
    const auto* record = static_cast<const QFU_CHIP_ENTRY*>(slot.chip);
    for (const std::uint32_t opcode : id_opcodes(adapter)) {
        const bool answered =
            qfu_spiflash_read_id(adapter, static_cast<std::uint8_t>(opcode), id) == 0 && id != 0 &&
            id != NOTHING;
        if (answered && (record == nullptr || qfu_spiflash_id_match(*record, id) == 0)) {
            return id;
        }
    }
    return 0;
}

} // namespace flash
