#include "uefi_nor.h"

#include "context.h"
#include "lab.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using emulator::FaultKind;
using emulator::NorChip;
using emulator::Operation;
using lab::Bytes;
using lab::kSecond;

constexpr std::uint32_t kBottomBoot = 0x22CB00C2;
constexpr std::uint32_t kBothEnds = 0x257E00EC;

/// An adapter with NOR flash alone, as discovery leaves it.
struct Nor : lab::Discovered {
    explicit Nor(std::uint32_t id = kBottomBoot)
        : chip(lab.nor_chip(lab.adapter(0xC703), id, emulator::kNeverBusy)) {}
    /// Discovers and forgets what that printed and did.
    QFU_ADAPTER& ready() {
        QFU_ADAPTER& adapter = discover();
        lab.printed();
        lab.cycles();
        lab.registers();
        return adapter;
    }
    QFU_FLASH_SLOT& slot() { return context.adapters[0].slot[0]; }

    /// The NOR controller's accesses since the last call, without those of the SPI controller.
    std::string registers() {
        std::string result;
        const std::string all = lab.registers();
        for (std::size_t at = 0; at < all.size();) {
            const std::size_t end = all.find('\n', at) + 1;
            const std::string line = all.substr(at, end - at);
            at = end;
            if (line.find("BAR2+0C80") == line.npos) {
                result += line.substr(3);
            }
        }
        return result;
    }

    NorChip& chip;
};

const std::string kWaited = "BAR2+0C944 > 00000001\nBAR2+0C954 > 00020000\n"
                            "BAR2+0C944 < FFFFFFFF\n";
const std::string kResetSequence = "BAR2+0C910 < 00000000\nBAR2+0C91C < 000000F0\n"
                                   "BAR2+0C940 < 01010000\n" +
                                   kWaited;
const std::string kUnlock = "BAR2+0C910 < 00000555\nBAR2+0C91C < 000000AA\n"
                            "BAR2+0C914 < 000002AA\nBAR2+0C920 < 00000055\n";

TEST(NorProbe, SetsUpWindowAndInterfaceAndIdentifiesInTheFixedOrder) {
    Nor n;
    n.lab.registers();
    const QFU_ADAPTER& adapter = n.discover();
    EXPECT_EQ(n.registers(), lab::expected("nor-probe"));
    EXPECT_EQ(adapter.current_slot, adapter.slot.data());
    EXPECT_EQ(adapter.slot[0].chip_type, QFU_CHIP_NOR);
    EXPECT_EQ(adapter.slot[0].erase_block, nullptr);
    EXPECT_EQ(adapter.slot[1].chip, nullptr);
    EXPECT_EQ(n.lab.printed(), "\r\nNo found any SPI Flash dev...1327\r\n");
}

TEST(NorRegisters, KeepTheirOtherBits) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    qfu_mem_write32(adapter.root_bridge, adapter.reg_base + 0x10100, 0x5280);
    qfu_mem_write32(adapter.root_bridge, adapter.reg_base + 0xC950, 0x4200);
    n.registers();
    n.slot().probe(adapter);
    const std::string log = n.registers();
    EXPECT_TRUE(log.starts_with("BAR2+10100 > 00005280\nBAR2+10100 < 00005200\n")) << log;
    EXPECT_NE(log.find("0C950 > 00004200\nBAR2+0C950 < 00004213\nBAR2+0C950 < 00004203\n"),
              std::string::npos);
    n.slot().finish(adapter);
    EXPECT_TRUE(n.registers().ends_with("BAR2+10100 > 00005200\nBAR2+10100 < 00005280\n"));
}

TEST(NorProbe, KnowsSixChipsByIdentificationAndSize) {
    for (const auto& [id, shown] : {std::pair(0x227E0001U, "800000, ID[227E0001]"),
                                    std::pair(0x22C900C2U, "800000, ID[22C900C2]"),
                                    std::pair(0x22CB00C2U, "800000, ID[22CB00C2]"),
                                    std::pair(0x22ED0020U, "800000, ID[22ED0020]"),
                                    std::pair(0x22FD0020U, "800000, ID[22FD0020]"),
                                    std::pair(0x257E00ECU, "400000, ID[257E00EC]")}) {
        Nor n(id);
        QFU_ADAPTER& adapter = n.ready();
        n.slot().show_info(adapter);
        EXPECT_EQ(n.lab.printed(), std::string("NOR FLASH Chip Whole Size=") + shown + ".\r\n");
        EXPECT_EQ(qfu_flash_size(adapter), n.chip.part().size);
    }
}

TEST(NorProbe, ShowsTheIdentificationOfAChipThatItDoesNotKnow) {
    Nor n;
    auto wrong = lab::fault(FaultKind::kWrongData, Operation::kReadId);
    wrong.mask = 0x10;
    n.chip.faults().add(wrong);
    QFU_ADAPTER& adapter = n.discover();
    EXPECT_EQ(n.lab.printed(), "\r\nNo found any SPI Flash dev...1327\r\n"
                               "\r\n(0x32db10d2)\r\n"
                               "\r\nNo found any NOR Flash dev...950\r\n");
    EXPECT_EQ(adapter.current_slot, nullptr);
    EXPECT_EQ(n.chip.count(Operation::kReset), 2U) << "it is left reading";

    Nor lost;
    lost.ready();
    lost.chip.faults().add(wrong);
    EXPECT_EQ(lost.slot().probe(lost.context.adapters[0]), QFU_FAILED);
    EXPECT_EQ(lost.slot().chip, nullptr) << "what was known before no longer holds";
}

TEST(NorProbe, GivesUpOnAControllerThatHangs) {
    const auto printed_with = [](Operation operation, std::uint64_t microseconds) {
        Nor n;
        n.lab.stop_listening();
        auto hang = lab::fault(FaultKind::kControllerBusy, operation);
        hang.times = 1;
        n.chip.faults().add(hang);
        n.discover();
        EXPECT_EQ(n.lab.clock().now_ns() / 1000, microseconds);
        n.lab.take_misuses(); // the next sequence starts while this one runs
        return n.lab.printed().substr(
            std::string("\r\nNo found any SPI Flash dev...1327\r\n").size());
    };
    // The reset pulse, one more stall behind each of three waits, and 5000001 or 300001 tries.
    EXPECT_EQ(printed_with(Operation::kReset, 10 + 30 + 50'000'010),
              "ShellPkg/Application/qfu/uefi_nor.cpp 255 qfu_samsung_reset...\r\n");
    EXPECT_EQ(printed_with(Operation::kReadId, 10 + 20 + 3'000'010),
              "ShellPkg/Application/qfu/uefi_nor.cpp 322 qfu_norflash_identify...\r\n"
              "\r\nNo found any NOR Flash dev...950\r\n");
}

TEST(NorWait, TakesNoAnswerForNoEndAndABreakForOne) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    n.lab.stop_listening();
    n.chip.faults().add(lab::fault(FaultKind::kNeverReady, Operation::kReset));
    qfu_samsung_reset(adapter);
    n.lab.registers();
    std::uint64_t start = n.lab.clock().now_ns();
    EXPECT_EQ(qfu_norflash_wait_done(adapter, 3), QFU_FAILED);
    EXPECT_EQ(n.lab.clock().now_ns() - start, 50'000U) << "four tries, then one more stall";
    EXPECT_TRUE(n.registers().ends_with("BAR2+0C944 < FFFFFFFF\n"));
    n.lab.faults().break_query.fail(n.lab.faults().break_query.calls() + 1);
    start = n.lab.clock().now_ns();
    EXPECT_EQ(qfu_norflash_wait_done(adapter, 3), 0U);
    EXPECT_EQ(n.lab.clock().now_ns() - start, 10'000U);
    EXPECT_EQ(n.registers(), "BAR2+0C944 < FFFFFFFF\n");
}

TEST(NorWait, TakesRegistersOfAllOnesForAnAdapterThatIsGone) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    n.lab.machine().adapter(0).pci().write(4, 0, 2); // no memory decoding
    EXPECT_EQ(qfu_norflash_wait_done(adapter, 3), QFU_FAILED);
}

/// A sequence that does not end.
struct Stuck {
    Operation on;
    std::uint32_t (*run)(QFU_ADAPTER&);
    std::uint64_t waited_us;
};

void PrintTo(const Stuck& stuck, std::ostream* out) {
    *out << emulator::operation_name(stuck.on);
}

class NorTimeout : public testing::TestWithParam<Stuck> {};

TEST_P(NorTimeout, FailsBehindItsTries) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    n.lab.stop_listening();
    n.chip.faults().add(lab::fault(FaultKind::kControllerBusy, GetParam().on));
    const std::uint64_t start = n.lab.clock().now_ns();
    EXPECT_EQ(GetParam().run(adapter), QFU_FAILED);
    EXPECT_EQ((n.lab.clock().now_ns() - start) / 1000, GetParam().waited_us);
    EXPECT_EQ(n.lab.printed(), "");
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

// One try more than the limit, 10 us each, and 10 us behind it and behind each sequence before it.
constexpr Stuck kStuck[] = {
    {Operation::kSectorErase,  erase_sector, 3'000'020 },
    {Operation::kChipErase,    erase_chip,   50'000'030},
    {Operation::kUnlockBypass, write_word,   50'000'020},
    {Operation::kProgram,      write_word,   50'000'030},
    {Operation::kBypassReset,  write_word,   50'000'040},
};
INSTANTIATE_TEST_SUITE_P(Sequences, NorTimeout, testing::ValuesIn(kStuck));

TEST(NorRead, MovesTheWindowForEveryWordAndKeepsWithinAnEvenBuffer) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    const Bytes stored = {1, 2, 3, 4};
    std::ranges::copy(stored, n.chip.contents().begin() + 0x401FFE);
    Bytes buffer(5, 0xEE);
    EXPECT_EQ(n.slot().read(adapter, 0x401FFE, buffer.data(), 3), 0U);
    EXPECT_EQ(buffer, (Bytes{1, 2, 3, 4, 0xEE}));
    EXPECT_EQ(n.registers(), lab::expected("nor-read"));
    n.lab.faults().memory_read.fail(n.lab.faults().memory_read.calls() + 3);
    EXPECT_EQ(n.slot().read(adapter, 0x401FFE, buffer.data(), 4), 0U);
    EXPECT_EQ(buffer, (Bytes{0x5A, 0x5A, 3, 4, 0xEE})) << "the first word cannot be read";
    // Width and base of the window are what the registers say: 5A5A5A5A when they cannot be read.
    n.registers();
    auto& reads = n.lab.faults().memory_read;
    reads.fail(reads.calls() + 1);
    n.slot().read(adapter, 0x401FFE, buffer.data(), 2);
    EXPECT_NE(n.registers().find("BAR2+08428 < FC400B4D\n"), std::string::npos);
    reads.fail(reads.calls() + 2);
    n.slot().read(adapter, 0x401FFE, buffer.data(), 2);
    EXPECT_NE(n.registers().find("BAR2+08428 < 5A9A5001\n"), std::string::npos);
    n.lab.take_misuses();
}

TEST(NorWrite, ProgramsWordsInBypassModeAndSkipsErasedOnes) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    n.chip.contents()[0x1005] = 0x3C;
    const Bytes data = {0x34, 0x12, 0xFF, 0xFF, 0x56};
    EXPECT_EQ(n.slot().write(adapter, 0x1000, data.data(), 5), 0U);
    EXPECT_EQ(n.registers(), lab::expected("nor-write"));
    EXPECT_EQ(n.lab.take_misuses(),
              std::vector<std::string>{"0.cs0: program of FF56 over 3CFF at 001004 sets bits"});
    EXPECT_EQ(n.chip.contents()[0x1004], 0x56);
    EXPECT_EQ(n.chip.contents()[0x1005], 0x3C) << "the byte beside an odd end stays";

    const Bytes erased(6, 0xFF);
    n.lab.cycles();
    EXPECT_EQ(n.slot().write(adapter, 0, erased.data(), 5), 0U);
    EXPECT_EQ(n.lab.cycles(), "0.cs0  000555 > 00AA, 0002AA > 0055, 000555 > 0020  unlock bypass\n"
                              "0.cs0  000000 > 0090, 000000 > 0000  bypass reset\n");
}

TEST(NorWrite, EndsWithTheChip) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    const Bytes data = {1, 2, 3, 4, 5, 6, 7, 8};
    const auto words_at = [&](std::uint32_t address) {
        const std::uint64_t before = n.chip.count(Operation::kProgram);
        EXPECT_EQ(n.slot().write(adapter, address, data.data(), 8), 0U);
        return n.chip.count(Operation::kProgram) - before;
    };
    EXPECT_EQ(words_at(0x7FFFFC), 2U);
    EXPECT_EQ(words_at(0x800000), 0U);
    EXPECT_EQ(words_at(0xFFFFFFFC), 0U);
    EXPECT_EQ(Bytes(n.chip.contents().end() - 4, n.chip.contents().end()), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(n.chip.contents()[0], 0xFF);
}

TEST(NorWrite, StopsAtTheFirstWordThatFailsAndStaysInBypassMode) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    n.lab.stop_listening();
    n.chip.faults().add(lab::fault(FaultKind::kControllerBusy, Operation::kProgram, 2));
    const Bytes data = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(n.slot().write(adapter, 0, data.data(), 6), QFU_FAILED);
    EXPECT_EQ(n.chip.count(Operation::kProgram), 2U);
    EXPECT_EQ(n.chip.count(Operation::kBypassReset), 0U);
    n.slot().finish(adapter);
    EXPECT_EQ(
        n.lab.take_misuses(),
        (std::vector<std::string>{"0.cs0: sequence started while another runs",
                                  "0.cs0: cycle 000000 > 00F0 starts or continues no command"}))
        << "a reset does not end the mode";
    // The pulse on the reset pin at the next start does.
    EXPECT_EQ(n.slot().probe(adapter), 0U);
}

/// The addresses of the sector erases in a cycle log, in bytes, and what was printed beside them.
std::vector<std::uint32_t> erased_at(const std::string& cycles) {
    std::vector<std::uint32_t> result;
    const std::string_view end = " > 0030  sector erase";
    for (std::size_t at = 0; (at = cycles.find(end, at)) != cycles.npos; at += end.size()) {
        result.push_back(
            2 * static_cast<std::uint32_t>(std::stoul(cycles.substr(at - 6, 6), nullptr, 16)));
    }
    return result;
}

/// What the erase of these blocks prints.
std::string progress(const std::vector<std::string>& blocks) {
    std::string result;
    for (const std::string& block : blocks) {
        result.append("\r").append(56, ' ').append("\rErase block ").append(block);
    }
    return result;
}

TEST(NorEraseRange, ErasesEachBlockOnceAtItsFirstByteInTheRange) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    lab::fill(n.chip.contents(), 0);
    const auto erase = [&](std::uint32_t address, std::uint32_t count) {
        EXPECT_EQ(n.slot().erase_range(adapter, address, count), 0U);
        return erased_at(n.lab.cycles());
    };
    using Addresses = std::vector<std::uint32_t>;
    n.slot().erase_sector(adapter, 0x6000);
    EXPECT_TRUE(n.registers().starts_with("BAR2+08420 < 00003001\n" + kUnlock));
    n.lab.cycles();
    EXPECT_EQ(erase(0x1000, 0x1000), Addresses{0x1000});
    EXPECT_EQ(n.lab.printed(), progress({"0"}));
    EXPECT_EQ(n.chip.contents()[0], 0xFF);
    EXPECT_EQ(n.chip.contents()[0x2000], 0);
    EXPECT_EQ(erase(0, 0x20000),
              (Addresses{0, 0x2000, 0x4000, 0x6000, 0x8000, 0xA000, 0xC000, 0xE000, 0x10000}));
    EXPECT_EQ(n.lab.printed(), progress({"0", "1", "2", "3", "4", "5", "6", "7", "8"}));
    EXPECT_EQ(n.chip.contents()[0x1FFFF], 0xFF);
    EXPECT_EQ(n.chip.contents()[0x20000], 0);
    EXPECT_EQ(erase(0x1FFFE, 4), (Addresses{0x1FFFE, 0x20000}));
    EXPECT_EQ(erase(0x3F0000, 0x10000), Addresses{0x3F0000});
    EXPECT_EQ(n.lab.printed(), progress({"8", "9"}) + progress({"46"}));
    EXPECT_EQ(erase(0x2000, 0), Addresses{});
    EXPECT_EQ(erase(0x7FF000, 0xFFFFFFFF), Addresses{0x7FF000}) << "the end does not wrap";
    EXPECT_EQ(erase(0x800000, 1), Addresses{});
    EXPECT_EQ(erase(0xFFFFFFFF, 0xFFFFFFFF), Addresses{});
}

TEST(NorEraseRange, NumbersTheBootBlocksAtTheTop) {
    Nor n(kBothEnds);
    QFU_ADAPTER& adapter = n.ready();
    EXPECT_EQ(n.slot().erase_range(adapter, 0x3EFFFE, 0x10002), 0U);
    EXPECT_EQ(erased_at(n.lab.cycles()),
              (std::vector<std::uint32_t>{0x3EFFFE, 0x3F0000, 0x3F2000, 0x3F4000, 0x3F6000,
                                          0x3F8000, 0x3FA000, 0x3FC000, 0x3FE000}));
    EXPECT_EQ(n.lab.printed(), progress({"45", "70", "71", "72", "73", "74", "75", "76", "77"}));
    // No chip of this kind reaches further, but the numbers go on.
    EXPECT_EQ(qfu_norflash_block_number(kBothEnds, 0x400000), 71U);
}

TEST(NorEraseRange, TakesOneStepABlock) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    n.lab.stop_listening();
    const auto queries = [&] { return n.lab.faults().break_query.calls(); };
    const std::uint64_t before = queries();
    EXPECT_EQ(n.slot().erase_range(adapter, 0, 0x800000), 0U);
    EXPECT_EQ(n.chip.count(Operation::kSectorErase), 135U);
    EXPECT_EQ(queries() - before, 1 + 2 * 135U) << "one a step, one a wait";
    n.lab.faults().break_query.fail(queries() + 4);
    EXPECT_EQ(n.slot().erase_range(adapter, 0, 0x800000), 0U);
    EXPECT_EQ(n.chip.count(Operation::kSectorErase), 136U) << "the reset, a step, a wait, no step";
}

TEST(NorEraseRange, EndsAtTheFirstBlockThatFails) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    n.lab.stop_listening();
    n.chip.faults().add(lab::fault(FaultKind::kNeverReady, Operation::kSectorErase, 2));
    const std::uint64_t start = n.lab.clock().now_ns();
    EXPECT_EQ(n.slot().erase_range(adapter, 0, 0x8000), QFU_FAILED);
    EXPECT_EQ(n.lab.printed(), progress({"0"}));
    EXPECT_NEAR(static_cast<double>(n.lab.clock().now_ns() - start), 3.0 * kSecond, 1e5)
        << "300001 tries of 10 us";
    n.slot().erase_sector = nullptr;
    EXPECT_EQ(n.slot().erase_range(adapter, 0, 0x8000), QFU_FAILED);
}

TEST(NorEraseChip, ResetsBeforeItErases) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    lab::fill(n.chip.contents(), 0);
    EXPECT_EQ(n.slot().erase_chip(adapter), 0U);
    EXPECT_TRUE(n.registers().starts_with("BAR2+08420 < 00003001\n" + kResetSequence));
    EXPECT_EQ(n.lab.cycles(),
              "0.cs0  000000 > 00F0  reset\n"
              "0.cs0  000555 > 00AA, 0002AA > 0055, 000555 > 0080, 000555 > 00AA, 0002AA > 0055, "
              "000555 > 0010  chip erase\n");
    EXPECT_EQ(std::ranges::count(n.chip.contents(), 0xFF), 0x800000);
}

TEST(NorFinish, LeavesTheChipReadingAndTheModeOff) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    EXPECT_EQ(n.slot().finish(adapter), 0U);
    EXPECT_EQ(n.registers(), "BAR2+08420 < 00003001\n" + kResetSequence +
                                 "BAR2+10100 > 00000000\nBAR2+10100 < 00000080\n");
}

TEST(NorSlot, WithoutChipOrSelectionDoesNothing) {
    Nor n;
    QFU_ADAPTER& adapter = n.ready();
    QFU_FLASH_SLOT& slot = n.slot();
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
    EXPECT_EQ(n.registers(), "");
}

} // namespace
