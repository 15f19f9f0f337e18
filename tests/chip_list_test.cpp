// Every record of the shipped lists serves its chip: a part built from the data sheet, not from the
// record, goes through the whole program, and through the two operations of the driver that no
// command reaches.
#include "hardware/hex.h"
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
using spilist::ChipList;

constexpr std::uint16_t kDevices[] = {0xC709, 0xC703, 0xC705}; ///< one of each interface kind

ChipList shipped_list(bool fast = false) {
    ChipList list = spilist::read_source(QFU_SOURCE_DIR "/spilist/chips.toml");
    if (fast) {
        spilist::use_erase_unit(list, 64 * 1024);
    }
    return list;
}

/// A list with the record for that part alone.
ChipList record_of(std::string_view part) {
    ChipList list = shipped_list();
    std::erase_if(list.chips, [&](const spilist::Chip& chip) {
        return std::ranges::find(chip.parts, part) == chip.parts.end();
    });
    return list;
}

/// Parts that power up protected and whose ID, in the shipped lists, does not make the program lift
/// that.
constexpr std::string_view kProtected[] = {"SST25VF080B", "SST25VF016B", "SST25VF032B"};

/// Takes the bench's chip through everything but its identification. @returns what fails, or ""
std::string failing_step(lab::Bench& bench, QFU_ADAPTER& adapter) {
    SpiChip& chip = bench.spi();
    QFU_FLASH_SLOT& slot = adapter.slot[1];
    const auto& record = *static_cast<const QFU_CHIP_ENTRY*>(slot.chip);
    const auto size = static_cast<std::uint32_t>(chip.contents().size());
    const auto prints = [&](const std::string& text, const std::string& arguments) {
        return bench.lab.run(arguments + " -csid 1").console.find(text) != std::string::npos;
    };
    const auto erases_from = [&](std::uint32_t first, const auto& erase) {
        lab::fill(chip.contents(), 0);
        Bytes expected(size, 0);
        lab::fill(std::span(expected).subspan(first), 0xFF);
        return erase() && lab::equal(chip.contents(), expected);
    };

    // The last sector: the highest address bits count.
    const std::string last = " -addr 0x" + hex(size - 1, 1);
    const std::uint32_t boundary = size - record.sector_size;
    if (!erases_from(boundary, [&] { return prints("Erase block", "-se -y -sz 1" + last); })) {
        return "sector erase";
    }
    // Around the boundary before it, or at the end of a chip of one sector.
    const std::uint32_t address = std::max(boundary, 20U) - 20;
    const std::string at = " -addr 0x" + hex(address, 1);
    const Bytes image = lab::pattern(40);
    bench.lab.write_file("image.bin", image);
    if (!prints("successful", "-wbf image.bin -y" + at) ||
        !std::ranges::equal(chip.contents().subspan(address, image.size()), image)) {
        return "program";
    }
    if (!prints("successful", "-rfb dump.bin -sz 40" + at) ||
        bench.lab.read_file("dump.bin") != image) {
        return "dump";
    }
    // No command erases blocks, so that is left to the driver's operation.
    bench.lab.attach();
    adapter.current_slot = &slot;
    if (!erases_from(size - record.block_size,
                     [&] { return slot.erase_block(adapter, size - 1) == 0; })) {
        return "block erase";
    }
    // Only some chips are unlocked at probe; the opcode must be right for all.
    constexpr std::uint8_t kBlockProtection = 0x3C;
    chip.protect_all_sectors();
    if ((chip.status() & kBlockProtection) == 0) {
        chip.set_status(kBlockProtection);
    }
    if (qfu_spiflash_unprotect_all(adapter) != 0 || (chip.status() & kBlockProtection) != 0) {
        return "status write";
    }
    return erases_from(0, [&] { return prints("Chip...Ok!", "-wpa -y"); }) ? "" : "wipe";
}

/// Takes a part through everything. @returns what does not go as the data sheet promises, or ""
std::string exercise(std::uint16_t device, std::string_view name, const ChipList& list,
                     bool open_chip = false) {
    const SpiPart& part = *find_spi_part(name);
    lab::Bench bench(device, name);
    bench.lab.write_file("spilist.bin", spilist::encode(list));
    if (open_chip) {
        bench.spi().set_status(0);
    }
    QFU_ADAPTER& adapter = bench.discover();
    const auto* record = static_cast<const QFU_CHIP_ENTRY*>(adapter.slot[1].chip);
    const std::string wrong = record == nullptr || record->whole_size != part.size
                                  ? "identification"
                                  : failing_step(bench, adapter);
    const std::vector<std::string> misuses = bench.lab.take_misuses();
    // All parts of maker 1F are asked for sector protection, which some do not know.
    const bool misused = part.id[0] != 0x1F && !misuses.empty();
    return wrong.empty() && misused ? misuses.front() : wrong;
}

TEST(ShippedList, ServesAPartOfEveryRecordInEitherUnit) {
    std::size_t turn = 0;
    for (const bool fast : {false, true}) {
        const ChipList list = shipped_list(fast);
        for (const spilist::Chip& chip : list.chips) {
            // Not each name of a record has a part of its own.
            const auto name = std::ranges::find_if(
                chip.parts, [](const std::string& part) { return find_spi_part(part) != nullptr; });
            ASSERT_NE(name, chip.parts.end()) << "the emulator has no " << chip.parts.front();
            const bool open = std::ranges::find(kProtected, *name) != std::end(kProtected);
            EXPECT_EQ(exercise(kDevices[turn++ % std::size(kDevices)], *name, list, open), "")
                << *name;
        }
    }
}

TEST(ShippedList, KnowsEveryEmulatedPart) {
    for (const SpiPart& part : spi_parts()) {
        EXPECT_EQ(record_of(part.name).chips.size(), 1U) << part.name;
        EXPECT_EQ(find_spi_part(part.name), &part) << "a name is taken twice";
    }
}

TEST(ShippedList, LeavesPartsProtectedThatATwoByteIdUnlocks) {
    for (const std::string_view name : kProtected) {
        ChipList list = record_of(name);
        EXPECT_EQ(exercise(0xC709, name, list), "sector erase") << name;
        list.chips[0].entry.id_len = 2;
        EXPECT_EQ(exercise(0xC709, name, list), "") << name;
    }
}

} // namespace
