#include "hardware/hex.h"
#include "qfu/uefi_nor.h"

#include "lab.h"

#include <gtest/gtest.h>

namespace {

using emulator::Operation;

/// An adapter with NOR flash alone, as discovery leaves it.
struct Nor : lab::Bench {
    explicit Nor(std::uint32_t id = 0x22CB00C2) : Bench(0xC703, "", id) { lab.printed(); }

    QFU_ADAPTER& adapter = discover();
    QFU_FLASH_SLOT& slot = adapter.slot[0];
};

TEST(NorRegisters, KeepTheirOtherBits) {
    Nor n;
    n.lab.log();
    const auto changes = [&](std::uint32_t reg, std::uint32_t from, auto operation) {
        qfu_mem_write32(n.adapter.root_bridge, n.adapter.reg_base + reg, from);
        operation(n.adapter);
        return qfu_mem_read32(n.adapter.root_bridge, n.adapter.reg_base + reg);
    };
    EXPECT_EQ(changes(0x10100, 0x5280, n.slot.probe), 0x5200U);
    EXPECT_EQ(changes(0x10100, 0x5200, n.slot.finish), 0x5280U);
    EXPECT_EQ(changes(0xC950, 0x4200, n.slot.probe), 0x4203U);
    EXPECT_NE(n.lab.log().find("0C950 < 00004213\n"), std::string::npos);
}

TEST(NorProbe, KnowsSixChipsByIdentificationAndSize) {
    for (const std::uint32_t id :
         {0x227E0001U, 0x22C900C2U, 0x22CB00C2U, 0x22ED0020U, 0x22FD0020U, 0x257E00ECU}) {
        Nor n(id);
        n.slot.show_info(n.adapter);
        const std::string size = id == 0x257E00EC ? "400000" : "800000";
        EXPECT_EQ(n.lab.printed(),
                  "NOR FLASH Chip Whole Size=" + size + ", ID[" + emulator::hex(id, 8) + "].\r\n");
    }
}

std::uint32_t write_word(QFU_ADAPTER& adapter) {
    const std::uint8_t word[] = {1, 2};
    return adapter.slot[0].write(adapter, 0, word, 2);
}
std::uint32_t erase_sector(QFU_ADAPTER& adapter) {
    return adapter.slot[0].erase_sector(adapter, 0);
}
std::uint32_t erase_chip(QFU_ADAPTER& adapter) {
    return adapter.slot[0].erase_chip(adapter);
}

/// Sequences that do not end: one try more than the limit, 10 us each, and 10 us after it and after
/// each sequence before it.
constexpr struct {
    Operation on;
    std::uint32_t (*run)(QFU_ADAPTER&);
    std::uint64_t waited_us;
} kStuck[] = {
    {Operation::kSectorErase,  erase_sector, 3'000'020 },
    {Operation::kChipErase,    erase_chip,   50'000'030},
    {Operation::kUnlockBypass, write_word,   50'000'020},
    {Operation::kProgram,      write_word,   50'000'030},
    {Operation::kBypassReset,  write_word,   50'000'040},
};

TEST(NorWait, FailsAfterItsTriesUnlessTheUserBreaksIt) {
    for (const auto& [on, run, waited_us] : kStuck) {
        SCOPED_TRACE(emulator::operation_name(on));
        Nor n;
        n.nor().faults().add({.kind = emulator::FaultKind::kControllerBusy, .on = on});
        const std::uint64_t start = n.lab.clock().now_ns();
        const auto waited = [&] { return (n.lab.clock().now_ns() - start) / 1000; };
        EXPECT_EQ(run(n.adapter), QFU_FAILED);
        EXPECT_EQ(waited(), waited_us);
        EXPECT_EQ(n.lab.printed(), "");
        auto& queries = n.lab.faults().break_query;
        queries.fail(queries.calls() + 1);
        EXPECT_EQ(qfu_norflash_wait_done(n.adapter, 3), 0U) << "a break is an end";
        EXPECT_EQ(waited(), waited_us + 10);
    }
}

TEST(NorEraseRange, AsksForABreakOnceABlock) {
    Nor n;
    auto& queries = n.lab.faults().break_query;
    const std::uint64_t before = queries.calls();
    EXPECT_EQ(n.slot.erase_range(n.adapter, 0, 0x800000), 0U);
    EXPECT_EQ(n.nor().count(Operation::kSectorErase), 135U);
    EXPECT_EQ(queries.calls() - before, 1 + 2 * 135U) << "one a step, one a wait";
    queries.fail(queries.calls() + 4);
    EXPECT_EQ(n.slot.erase_range(n.adapter, 0, 0x800000), 0U);
    EXPECT_EQ(n.nor().count(Operation::kSectorErase), 136U) << "the reset, a step, a wait, no step";
}

TEST(NorSlot, WithoutChipOrSelectionDoesNothing) {
    Nor n;
    QFU_ADAPTER& adapter = n.adapter;
    QFU_FLASH_SLOT& slot = n.slot;
    n.lab.log();
    std::uint8_t byte = 0;
    const auto every_operation = [&] {
        return std::vector{slot.read(adapter, 0, &byte, 1), slot.write(adapter, 0, &byte, 1),
                           slot.erase_sector(adapter, 0), slot.erase_chip(adapter),
                           slot.erase_range(adapter, 0, 1)};
    };
    slot.chip = nullptr;
    EXPECT_EQ(every_operation(), std::vector(5, QFU_FAILED));
    EXPECT_EQ(slot.finish(adapter), 0U);
    slot.show_info(adapter);
    EXPECT_EQ(n.lab.printed(), "No detected any SPI Flash chip.\r\n");
    adapter.current_slot = nullptr;
    EXPECT_EQ(every_operation(), std::vector(5, QFU_FAILED));
    EXPECT_EQ(slot.finish(adapter), QFU_FAILED);
    slot.show_info(adapter);
    std::string seven;
    for (int i = 0; i < 7; ++i) {
        seven += "No supported NOR Flash interface.\r\n";
    }
    EXPECT_EQ(n.lab.printed(), seven);
    EXPECT_EQ(n.lab.log(), "");
}

} // namespace
