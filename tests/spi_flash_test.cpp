// What no command line reaches: block erases, answers that no chip gives, slots without a chip.
#include "qfu/spi_flash.h"

#include "lab.h"

#include <gtest/gtest.h>

namespace {

using emulator::FaultKind;
using emulator::Operation;
using lab::Bytes;

/// A probed adapter whose operations are called one by one.
struct Operations : lab::Bench {
    using Bench::Bench;

    /// Since the adapter was probed.
    std::uint64_t milliseconds() { return (lab.clock().now_ns() - start_) / 1'000'000; }

    QFU_ADAPTER& adapter = discover();
    QFU_FLASH_SLOT& slot = adapter.slot[1];

  private:
    std::uint64_t start_ = lab.clock().now_ns();
};

TEST(SpiEraseBlock, SendsTheBlocksBaseAfterWriteEnable) {
    Operations indexed(0xC709);
    indexed.lab.log();
    EXPECT_EQ(indexed.slot.erase_block(indexed.adapter, 0x12345), 0U);
    EXPECT_EQ(indexed.milliseconds(), 100U);
    EXPECT_NE(indexed.lab.log().find("0  BAR5+000A8 < 06000004\n0  BAR5+000AC < 00010000\n"
                                     "0  BAR5+000A8 < 06000000\n0  BAR5+000AC < 00D81030\n"),
              std::string::npos);
    Operations window(0xC705);
    window.lab.log();
    EXPECT_EQ(window.slot.erase_block(window.adapter, 0x1FFFF), 0U);
    EXPECT_NE(window.lab.log().find("0  BAR0+1C804 < 00010000\n0  BAR0+1C800 < 0913D803\n"),
              std::string::npos);
}

TEST(SpiEraseBlock, GivesUpOnWhatHangs) {
    for (const auto& [kind, printed, waited_ms] :
         {std::tuple(FaultKind::kControllerBusy, "909 timeout\r\n", 1000U),
          std::tuple(FaultKind::kNeverReady, "", 10100U)}) {
        Operations o(0xC705);
        o.spi().faults().add({.kind = kind, .on = Operation::kBlockErase});
        EXPECT_EQ(o.slot.erase_block(o.adapter, 0), QFU_FAILED);
        EXPECT_EQ(o.lab.printed(), printed);
        EXPECT_EQ(o.milliseconds(), waited_ms);
    }
}

/// Sets one bit that no chip sends in what the data register gives, unless the value is `keep`.
template <std::uint32_t keep>
std::uint32_t read_with_stray_bit(QFU_ADAPTER& adapter, std::uint32_t reg) {
    const std::uint32_t value = qfu_spireg_read_indexed(adapter, reg);
    return reg != QFU_SPI_DATA_OUT || value == keep ? value : value | 0x100;
}

TEST(SpiUnlock, LooksAtTheLowByteOfTheFirstAnswerAndThenAtTheWholeRegister) {
    Operations o(0xC709, "AT25DF041A");
    o.slot.reg_read = read_with_stray_bit<0x0E>; // the status with the latch set stays as it is
    EXPECT_EQ(qfu_spiflash_unprotect_sector(o.adapter, 0), 0U);
    EXPECT_EQ(o.spi().count(Operation::kUnprotectSector), 0U);
    o.spi().protect_all_sectors();
    EXPECT_EQ(qfu_spiflash_unprotect_sector(o.adapter, 0), 0U);
    EXPECT_EQ(o.milliseconds(), 1000U) << "100000 queries";
}

/// What a chip of maker BF answers to the reader below.
std::uint32_t answer = 0;

std::uint32_t read_with_other_id(QFU_ADAPTER& adapter, std::uint32_t reg) {
    const std::uint32_t value = qfu_spireg_read_indexed(adapter, reg);
    return (value & 0xFF) == 0xBF ? answer : value;
}

TEST(SpiUnlock, IsDecidedByTheWholeIdentification) {
    for (const auto& [id, unlocked] : std::vector<std::pair<Bytes, bool>>{
             {{0xBF, 0x25},    true },
             {{0xBF, 0x8D},    true },
             {{0xBF, 0x26},    false},
             {{0xBF, 0x25, 0}, true },
             {{0xBF, 0x8D, 0}, true },
             {{0xBF, 0x25, 1}, false}
    }) {
        Operations o(0xC709, "SST25VF040B");
        QFU_CHIP_LIST list = *o.context.chip_list;
        list.records[0] = *static_cast<const QFU_CHIP_ENTRY*>(o.slot.chip);
        list.records[0].id_len = static_cast<std::uint8_t>(id.size());
        std::ranges::copy(id, list.records[0].id_bytes.begin());
        o.context.chip_list = &list;
        answer = id[0] | std::uint32_t{id[1]} << 8 | std::uint32_t{id.back()} << 16;
        o.slot.reg_read = read_with_other_id;
        o.slot.probe(o.adapter);
        EXPECT_EQ(o.spi().count(Operation::kWriteStatus), unlocked ? 2U : 1U)
            << testing::PrintToString(id);
    }
}

TEST(ProtectionSectors, HaveElevenBases) {
    EXPECT_EQ(qfu_spiflash_sector_base(0xFFFF), 0U);
    EXPECT_EQ(qfu_spiflash_sector_base(0x77FFF), 0x70000U);
    EXPECT_EQ(qfu_spiflash_sector_base(0x78000), 0x78000U);
    EXPECT_EQ(qfu_spiflash_sector_base(0x7BFFF), 0x7A000U);
    EXPECT_EQ(qfu_spiflash_sector_base(0xFFFFFFFF), 0x7C000U);
}

TEST(SpiShowInfo, NamesWhatIsMissing) {
    Operations o(0xC705);
    o.slot.chip = nullptr;
    o.slot.show_info(o.adapter);
    o.adapter.current_slot = nullptr;
    o.slot.show_info(o.adapter);
    EXPECT_EQ(o.lab.printed(), "No detected any SPI Flash chip...1215\r\n"
                               "No target interface ...1208.\r\n");
}

} // namespace
