// Every record of the shipped lists serves its chip: a part built from the data sheet, not from the
// record, goes through the whole program, and through the two operations of the driver that no
// command reaches.
#include "lab.h"
#include "qfu/adapter.h"
#include "qfu/spi_flash.h"
#include "spilist/chip_list.h"
#include "spilist/image.h"
#include "spilist/source.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using namespace emulator;
using lab::Bytes;
using lab::Probed;
using spilist::ChipList;

constexpr std::uint32_t kFastUnit = 64 * 1024;

ChipList shipped_source() {
    return spilist::read_source(QFU_SOURCE_DIR "/spilist/chips.toml");
}

ChipList shipped_list(bool fast) {
    ChipList list = shipped_source();
    if (fast) {
        spilist::use_erase_unit(list, kFastUnit);
    }
    return list;
}

/// A list with the record for that part alone.
ChipList record_of(const ChipList& list, std::string_view part) {
    ChipList one = list;
    std::erase_if(one.chips, [&](const spilist::Chip& chip) {
        return std::ranges::find(chip.parts, part) == chip.parts.end();
    });
    return one;
}

std::string hex_number(std::uint32_t number) {
    return "0x" + hex(number, 1);
}

/// Takes a part through everything. What does not go as the data sheet promises is a complaint.
class Exercise {
  public:
    Exercise(int flash_if, const SpiPart& part, const ChipList& list)
        : probed_(flash_if, part.name), chip_(probed_.chip), part_(part) {
        probed_.lab.stop_listening();
        probed_.lab.write_file("spilist.bin", spilist::encode(list));
    }

    /// Protection that the program cannot lift is lifted at the chip.
    void open_chip() { chip_.set_status(0); }

    /// Stops at the first step that fails.
    std::vector<std::string> run() {
        using Step = void (Exercise::*)();
        constexpr Step kSteps[] = {&Exercise::identify,      &Exercise::erase_a_sector,
                                   &Exercise::program,       &Exercise::dump,
                                   &Exercise::erase_a_block, &Exercise::write_status,
                                   &Exercise::wipe};
        for (const Step step : kSteps) {
            (this->*step)();
            for (const std::string& misuse : probed_.lab.take_misuses()) {
                if (!announced(misuse)) {
                    complain(misuse);
                }
            }
            if (!complaints_.empty()) {
                break;
            }
        }
        return complaints_;
    }

  private:
    void complain(const std::string& what) { complaints_.push_back(what); }
    void want(bool holds, const std::string& what) {
        if (!holds) {
            complain(what);
        }
    }

    /// Parts of maker 1F are asked for sector protection: those without it do not know the opcodes,
    /// and the query of window controllers is one that sets protection.
    bool announced(const std::string& misuse) const {
        const auto unknown = [&](const char* opcode) {
            return misuse.ends_with(std::string("opcode ") + opcode +
                                    " is none that the chip knows");
        };
        if (part_.protection == Protection::kSectorRegisters) {
            return misuse.ends_with("protect sector without write enable");
        }
        return part_.id[0] == 0x1F && (unknown("36") || unknown("39") || unknown("3C"));
    }

    std::string run_program(const std::string& arguments) {
        return probed_.lab.run(arguments + " -csid 1").text();
    }
    void want_printed(const std::string& arguments, const std::string& text) {
        const std::string console = run_program(arguments);
        want(console.find(text) != std::string::npos, "qfu " + arguments + " printed\n" + console);
    }

    std::uint32_t unit() const { return record_->sector_size; }

    void identify() {
        record_ = static_cast<const QFU_CHIP_ENTRY*>(probed_.discover().slot[1].chip);
        if (record_ == nullptr) {
            complain("was not identified");
            return;
        }
        want(record_->whole_size == part_.size, "its size is " + hex_number(record_->whole_size));
        want_printed("-l", "cs1:SPI FLASH Chip Whole Size=" + hex(part_.size, 1) + ", ID[");
    }

    void fill(std::uint8_t byte) { lab::fill(chip_.contents(), byte); }

    /// Of a chip of zeros exactly the bytes from `first` to `end` are erased.
    void want_erased(std::uint32_t first, std::uint32_t end, const std::string& by) {
        Bytes expected(part_.size, 0);
        lab::fill(std::span(expected).subspan(first, end - first), 0xFF);
        want(lab::equal(chip_.contents(), expected), by + " did not erase just what it should");
    }

    /// The last sector: the highest address bits count.
    void erase_a_sector() {
        fill(0);
        run_program("-se -y -sz 1 -addr " + hex_number(part_.size - 1));
        want_erased(part_.size - unit(), part_.size, "erasing a sector");
    }

    /// Around the boundary before the last sector, or at the end of a chip of one sector.
    void program() {
        fill(0);
        image_ = lab::pattern(40);
        address_ = std::max(part_.size - unit(), 20U) - 20;
        probed_.lab.write_file("image.bin", image_);
        want_printed("-wbf image.bin -y -addr " + hex_number(address_),
                     "Write file is successful!!");
        want(std::equal(image_.begin(), image_.end(), chip_.contents().begin() + address_),
             "the flash does not hold the image");
    }

    void dump() {
        run_program("-rfb dump.bin -sz 40 -addr " + hex_number(address_));
        want(probed_.lab.read_file("dump.bin") == image_, "the dump is not the image");
    }

    /// No command erases blocks, so that is left to the driver's operation.
    void erase_a_block() {
        fill(0);
        QFU_ADAPTER& adapter = select_slot();
        const std::uint32_t last = part_.size - record_->block_size;
        want(adapter.current_slot->erase_block(adapter, part_.size - 1) == 0,
             "erasing a block failed");
        want_erased(last, part_.size, "erasing a block");
    }

    /// Only some chips are unlocked at probe; the opcode must be right for all.
    void write_status() {
        constexpr std::uint8_t kBlockProtection = 0x3C;
        QFU_ADAPTER& adapter = select_slot();
        fill(0);
        chip_.protect_all_sectors();
        if (part_.protection != Protection::kSectorRegisters) {
            chip_.set_status(kBlockProtection);
        }
        want(qfu_spiflash_unprotect_all(adapter) == 0, "the status write failed");
        want((chip_.status() & kBlockProtection) == 0, "the protection is still set");
        want(adapter.current_slot->erase_sector(adapter, 0) == 0 && chip_.contents()[0] == 0xFF,
             "the chip is still protected");
    }

    void wipe() {
        fill(0);
        want_printed("-wpa -y", "Wipe whole SPI-Flash Chip...Ok!");
        want_erased(0, part_.size, "the wipe");
    }

    QFU_ADAPTER& select_slot() {
        QFU_ADAPTER& adapter = probed_.context.adapters[0];
        probed_.lab.attach();
        adapter.current_slot = &adapter.slot[1];
        return adapter;
    }

    Probed probed_;
    SpiChip& chip_;
    const SpiPart& part_;
    const QFU_CHIP_ENTRY* record_ = nullptr;
    Bytes image_;
    std::uint32_t address_ = 0;
    std::vector<std::string> complaints_;
};

constexpr int kKinds[] = {1, 2, 4};

/// The part of that name or one that shares its record.
const SpiPart* part_of(const spilist::Chip& chip) {
    for (const std::string& name : chip.parts) {
        if (const SpiPart* part = find_spi_part(name)) {
            return part;
        }
    }
    return nullptr;
}

/// Parts that power up protected and whose ID, in the shipped lists, does not make the program lift
/// that.
bool stays_protected(std::string_view part) {
    return part == "SST25VF080B" || part == "SST25VF016B" || part == "SST25VF032B";
}

void exercise_every_record(const ChipList& list, int turn) {
    for (const spilist::Chip& chip : list.chips) {
        SCOPED_TRACE(chip.parts.front());
        const SpiPart* part = part_of(chip);
        ASSERT_NE(part, nullptr) << "the emulator has no such part";
        Exercise exercise(kKinds[turn++ % 3], *part, list);
        if (stays_protected(part->name)) {
            exercise.open_chip();
        }
        EXPECT_EQ(exercise.run(), std::vector<std::string>{});
    }
}

TEST(ShippedList, ServesAPartOfEveryRecord) {
    exercise_every_record(shipped_list(false), 0);
}

TEST(ShippedList, ServesAPartOfEveryRecordInFastUnits) {
    exercise_every_record(shipped_list(true), 1);
}

TEST(ShippedList, KnowsEveryEmulatedPart) {
    const ChipList list = shipped_source();
    for (const SpiPart& part : spi_parts()) {
        EXPECT_EQ(record_of(list, part.name).chips.size(), 1U) << part.name;
        EXPECT_EQ(find_spi_part(part.name), &part) << "a name is taken twice";
    }
}

TEST(ShippedList, DoesNotServeAPartWithAWrongOpcode) {
    constexpr std::uint8_t kUnknown = 0xEE;
    const SpiPart& part = *find_spi_part("W25X40");
    const ChipList right = record_of(shipped_list(false), part.name);
    for (const spilist::OpcodeField& field : spilist::kOpcodeFields) {
        ChipList wrong = right;
        wrong.chips[0].entry.*field.value = kUnknown;
        EXPECT_NE(Exercise(4, part, wrong).run(), std::vector<std::string>{}) << field.name;
    }
}

TEST(ShippedList, LeavesPartsProtectedThatATwoByteIdUnlocks) {
    const ChipList list = shipped_list(false);
    for (const char* name : {"SST25VF080B", "SST25VF016B", "SST25VF032B"}) {
        const SpiPart& part = *find_spi_part(name);
        const ChipList shipped = record_of(list, name);
        EXPECT_NE(Exercise(1, part, shipped).run(), std::vector<std::string>{}) << name;
        ChipList site = shipped;
        site.chips[0].entry.id_len = 2;
        EXPECT_EQ(Exercise(1, part, site).run(), std::vector<std::string>{}) << name;
    }
}

} // namespace
