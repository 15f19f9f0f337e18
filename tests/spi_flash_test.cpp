// What no command line reaches: block erases, answers that no chip gives, slots without a chip.
#include "qfu/spi_flash.h"

#include "lab.h"
#include "spilist/image.h"

#include <gtest/gtest.h>

namespace {

using emulator::FaultKind;
using emulator::Operation;
using lab::Bytes;
using lab::kSecond;
using lab::Probed;

/// A probed adapter whose operations are called one by one.
struct Operations : Probed {
    using Probed::Probed;

    QFU_ADAPTER& ready() {
        QFU_ADAPTER& adapter = discover();
        lab.registers();
        return adapter;
    }
    QFU_FLASH_SLOT& slot() { return context.adapters[0].slot[1]; }
};

TEST(SpiEraseBlock, SendsTheBlocksBaseAfterWriteEnable) {
    Operations indexed(1);
    QFU_ADAPTER& first = indexed.ready();
    const std::uint64_t start = indexed.lab.clock().now_ns();
    EXPECT_EQ(indexed.slot().erase_block(first, 0x12345), 0U);
    EXPECT_EQ(indexed.lab.clock().now_ns() - start, kSecond / 10) << "the pause of 100 ms";
    EXPECT_NE(indexed.lab.registers().find("0  BAR5+000A8 < 06000004\n0  BAR5+000AC < 00010000\n"
                                           "0  BAR5+000A8 < 06000000\n0  BAR5+000AC < 00D81030\n"),
              std::string::npos);
    Operations window(4);
    QFU_ADAPTER& second = window.ready();
    EXPECT_EQ(window.slot().erase_block(second, 0x1FFFF), 0U);
    EXPECT_NE(window.lab.registers().find("0  BAR0+1C804 < 00010000\n0  BAR0+1C800 < 0913D803\n"),
              std::string::npos);
}

TEST(SpiEraseBlock, GivesUpOnWhatHangs) {
    for (const auto& [kind, printed, tenths] :
         {std::tuple(FaultKind::kControllerBusy, "909 timeout\r\n", 10U),
          std::tuple(FaultKind::kNeverReady, "", 101U)}) {
        Operations o(4);
        QFU_ADAPTER& adapter = o.ready();
        o.lab.stop_listening();
        o.chip.faults().add(lab::fault(kind, Operation::kBlockErase));
        const std::uint64_t start = o.lab.clock().now_ns();
        EXPECT_EQ(o.slot().erase_block(adapter, 0), QFU_FAILED);
        EXPECT_EQ(o.lab.printed(), printed);
        EXPECT_EQ(o.lab.clock().now_ns() - start, tenths * kSecond / 10);
    }
}

/// Sets one bit that no chip sends in what the data register gives, unless the value is `keep`.
template <std::uint32_t keep>
std::uint32_t read_with_stray_bit(QFU_ADAPTER& adapter, std::uint32_t reg) {
    const std::uint32_t value = qfu_spireg_read_indexed(adapter, reg);
    return reg != QFU_SPI_DATA_OUT || value == keep ? value : value | 0x100;
}

TEST(SpiUnlock, LooksAtTheLowByteOfTheFirstAnswerAndThenAtTheWholeRegister) {
    Operations o(1, "AT25DF041A");
    QFU_ADAPTER& adapter = o.ready();
    o.lab.stop_listening();
    o.slot().reg_read = read_with_stray_bit<0x0E>; // the status with the latch set stays as it is
    EXPECT_EQ(qfu_spiflash_unprotect_sector(adapter, 0), 0U);
    EXPECT_EQ(o.chip.count(Operation::kUnprotectSector), 0U);
    o.chip.protect_all_sectors();
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(qfu_spiflash_unprotect_sector(adapter, 0), 0U);
    EXPECT_EQ(o.lab.clock().now_ns() - start, kSecond) << "100000 queries";
}

/// What a chip of maker BF answers to the reader below.
std::uint32_t answer = 0;

std::uint32_t read_with_other_id(QFU_ADAPTER& adapter, std::uint32_t reg) {
    const std::uint32_t value = qfu_spireg_read_indexed(adapter, reg);
    return (value & 0xFF) == 0xBF ? answer : value;
}

TEST(SpiUnlock, IsDecidedByTheWholeIdentification) {
    struct Other {
        Bytes id;
        bool unlocked;
    };
    for (const auto& [id, unlocked] : {
             Other{{0xBF, 0x25},    true },
             Other{{0xBF, 0x8D},    true },
             Other{{0xBF, 0x26},    false},
             Other{{0xBF, 0x25, 0}, true },
             Other{{0xBF, 0x8D, 0}, true },
             Other{{0xBF, 0x25, 1}, false}
    }) {
        Operations other(1, "SST25VF040B");
        QFU_ADAPTER& adapter = other.ready();
        QFU_CHIP_LIST list = *other.context.chip_list;
        list.records[0] = *static_cast<const QFU_CHIP_ENTRY*>(other.slot().chip);
        list.records[0].id_len = static_cast<std::uint8_t>(id.size());
        std::ranges::copy(id, list.records[0].id_bytes.begin());
        other.context.chip_list = &list;
        answer = id[0] | std::uint32_t{id[1]} << 8 | std::uint32_t{id.back()} << 16;
        other.slot().reg_read = read_with_other_id;
        other.slot().probe(adapter);
        EXPECT_EQ(other.chip.count(Operation::kWriteStatus), unlocked ? 2U : 1U)
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
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    o.slot().chip = nullptr;
    o.slot().show_info(adapter);
    EXPECT_EQ(o.lab.printed(), "No detected any SPI Flash chip...1215\r\n");
    adapter.current_slot = nullptr;
    o.slot().show_info(adapter);
    EXPECT_EQ(o.lab.printed(), "No target interface ...1208.\r\n");
}

} // namespace
