#include "spi_flash.h"

#include "image.h"
#include "lab.h"

#include <gtest/gtest.h>

namespace {

using emulator::FaultKind;
using emulator::Operation;
using lab::Bytes;
using lab::kSecond;
using lab::Probed;

/// Register accesses by controller register: "4 < 00000123". An index write that selects the
/// register of the access behind it is folded into it.
std::string controller_log(const std::string& registers) {
    std::string result;
    std::string index;
    std::size_t at = 0;
    while (at < registers.size()) {
        const std::size_t end = registers.find('\n', at);
        const std::string line = registers.substr(at, end - at);
        at = end + 1;
        const unsigned offset = static_cast<unsigned>(std::stoul(line.substr(8, 5), nullptr, 16));
        const std::string access = line.substr(14);
        if (line.find("BAR5") != std::string::npos && offset == 0xA8) {
            index = access.substr(2);
        } else if (line.find("BAR5") != std::string::npos) {
            EXPECT_EQ(index.substr(0, 6), "060000");
            result +=
                std::to_string(std::stoul(index.substr(6), nullptr, 16)) + " " + access + "\n";
        } else {
            result += std::to_string(offset & 0x1F) + " " + access + "\n";
        }
    }
    return result;
}

/// A probed adapter whose accesses from now on are of interest.
struct Operations : Probed {
    using Probed::Probed;

    QFU_ADAPTER& ready() {
        QFU_ADAPTER& adapter = discover();
        lab.registers();
        lab.cycles();
        return adapter;
    }
    QFU_FLASH_SLOT& slot() { return context.adapters[0].slot[1]; }
    std::string log() { return controller_log(lab.registers()); }
};

TEST(SpiProbe, BringsTheIndexedControllerUpAndAsksForTheId) {
    Operations o(1);
    o.lab.registers();
    o.discover();
    EXPECT_EQ(o.lab.registers(), lab::expected("spi-probe"));
}

TEST(SpiProbe, NeedsNoSetUpOnGeneration2AndOnWindows) {
    Operations generation2(std::uint16_t{0xC70F}, "W25X40");
    generation2.lab.registers();
    generation2.discover();
    EXPECT_TRUE(generation2.lab.registers().starts_with("0  BAR5+000A8 < 00000000\n"
                                                        "0  BAR5+000AC < 009F2430\n"));
    Operations window(4);
    window.lab.registers();
    window.discover();
    EXPECT_EQ(controller_log(window.lab.registers()),
              "0 < 09139F45\n0 > 09139F44\n12 > EF1330EF\n");
}

TEST(SpiWrite, ProgramsAByteInTheFixedOrderOfAccesses) {
    Operations indexed(1);
    QFU_ADAPTER& first = indexed.ready();
    const std::uint8_t byte = 0xA5;
    EXPECT_EQ(indexed.slot().write(first, 0x123, &byte, 1), 0U);
    EXPECT_EQ(indexed.log(), lab::expected("spi-write-indexed"));
    EXPECT_EQ(indexed.chip.contents()[0x123], 0xA5);

    Operations window(4);
    QFU_ADAPTER& second = window.ready();
    EXPECT_EQ(window.slot().write(second, 0x123, &byte, 1), 0U);
    EXPECT_EQ(window.log(), lab::expected("spi-write-window"));
}

TEST(SpiWrite, GoesByteByByteAndSendsNothingForNothing) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    const Bytes data = {0x01, 0xFF, 0x02};
    EXPECT_EQ(o.slot().write(adapter, 0xFFE, data.data(), 0), 0U);
    EXPECT_EQ(o.lab.cycles(), "");
    EXPECT_EQ(o.slot().write(adapter, 0xFFE, data.data(), 3), 0U);
    EXPECT_EQ(o.chip.count(Operation::kProgram), 3U) << "0xFF is programmed like any other byte";
    EXPECT_EQ(o.chip.contents()[0x1000], 0x02);
    o.chip.faults().add(lab::fault(FaultKind::kIgnored, Operation::kProgram));
    EXPECT_EQ(o.slot().write(adapter, 0, data.data(), 1), 0U) << "the latch may stay set";
}

TEST(SpiRead, TakesWholePiecesAtMultiplesOfFour) {
    Operations o(1);
    QFU_ADAPTER& adapter = o.ready();
    for (std::size_t i = 0; i < 16; ++i) {
        o.chip.contents()[0x1000 + i] = static_cast<std::uint8_t>(i);
    }
    Bytes buffer(8, 0xEE);
    EXPECT_EQ(o.slot().read(adapter, 0x1000, buffer.data(), 7), 0U);
    EXPECT_EQ(o.lab.cycles(), "0.cs1  03 @001000 < 00 01 02 03  read\n"
                              "0.cs1  03 @001004 < 04 05 06     read\n");
    EXPECT_EQ(buffer, (Bytes{0, 1, 2, 3, 4, 5, 6, 0xEE}));
    EXPECT_EQ(o.slot().read(adapter, 0x1002, buffer.data(), 4), 0U);
    EXPECT_EQ(o.lab.cycles(), "0.cs1  03 @001002 < 02 03        read\n"
                              "0.cs1  03 @001004 < 04 05        read\n");
    EXPECT_EQ(o.slot().read(adapter, 0x1001, buffer.data(), 1), 0U);
    EXPECT_EQ(o.slot().read(adapter, 0x1001, buffer.data(), 0), 0U);
    EXPECT_EQ(o.lab.cycles(), "0.cs1  03 @001001 < 01           read\n");
    EXPECT_EQ(o.log().substr(0, 13 * 4),
              "4 < 00001000\n0 < 00033430\n0 > 00033420\n8 > 03020100\n");
}

TEST(SpiRead, LeavesBytesThatTimeOutAsTheyWere) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    o.chip.faults().add(lab::fault(FaultKind::kControllerBusy, Operation::kRead, 2));
    Bytes buffer(8, 0xEE);
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(o.slot().read(adapter, 0, buffer.data(), 8), 0U);
    EXPECT_EQ(buffer, (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(o.lab.printed(), "1029 timeout\r\n");
    EXPECT_EQ(o.lab.clock().now_ns() - start, 3 * kSecond) << "300000 polls of 10 us";
}

TEST(SpiRead, StopsAtABreakBetweenPieces) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    Bytes buffer(8, 0xEE);
    o.lab.faults().break_query.fail(o.lab.faults().break_query.calls() + 2);
    EXPECT_EQ(o.slot().read(adapter, 2, buffer.data(), 8), 0U);
    EXPECT_EQ(buffer, (Bytes{0xFF, 0xFF, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST(SpiErase, SendsTheUnitsBaseAfterWriteEnable) {
    Operations o(1);
    QFU_ADAPTER& adapter = o.ready();
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(o.slot().erase_sector(adapter, 0x12345), 0U);
    EXPECT_EQ(o.lab.clock().now_ns() - start, kSecond / 10) << "the pause of 100 ms";
    EXPECT_EQ(o.log(), lab::expected("spi-erase"));
    EXPECT_EQ(o.slot().erase_block(adapter, 0x12345), 0U);
    EXPECT_NE(o.log().find("4 < 00010000\n0 < 00D81030\n"), std::string::npos);
    const std::uint64_t chip = o.lab.clock().now_ns();
    EXPECT_EQ(o.slot().erase_chip(adapter), 0U);
    EXPECT_EQ(o.lab.clock().now_ns(), chip) << "no pause behind a chip erase";
    EXPECT_NE(o.log().find("8 > 00000002\n0 < 00C70030\n0 > 00C70020\n"), std::string::npos);
}

TEST(SpiErase, HasTheWindowsWordsToo) {
    Operations o(2);
    QFU_ADAPTER& adapter = o.ready();
    adapter.current_slot = &o.slot();
    o.slot().erase_sector(adapter, 0x1FFF);
    EXPECT_NE(o.log().find("4 < 00001000\n0 < 09132003\n"), std::string::npos);
    o.slot().erase_block(adapter, 0x1FFFF);
    EXPECT_NE(o.log().find("4 < 00010000\n0 < 0913D803\n"), std::string::npos);
    o.slot().erase_chip(adapter);
    EXPECT_NE(o.log().find("0 < 0913C701\n"), std::string::npos);
    std::uint8_t byte = 0;
    o.slot().read(adapter, 5, &byte, 1);
    EXPECT_EQ(o.log(), "4 < 00000005\n0 < 09130317\n0 > 09130316\n12 > 000000FF\n");
}

TEST(SpiEraseRange, ErasesEverySectorThatHoldsAByte) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    const auto sectors = [&](std::uint32_t address, std::uint32_t count) {
        const std::uint64_t before = o.chip.count(Operation::kSectorErase);
        EXPECT_EQ(o.slot().erase_range(adapter, address, count), 0U);
        return o.chip.count(Operation::kSectorErase) - before;
    };
    EXPECT_EQ(sectors(0x800, 0x1000), 2U);
    EXPECT_EQ(o.lab.printed(), "\rErase block 00000000\rErase block 00001000");
    EXPECT_EQ(sectors(0x1000, 0), 0U);
    EXPECT_EQ(sectors(0x80000, 1), 0U);
    EXPECT_EQ(sectors(0x7F000, 0x30000), 1U) << "stops at the end of the chip";
    EXPECT_EQ(sectors(0x1000, 0xFFFFFFFF), 0U) << "the end is a 32-bit sum";
    EXPECT_EQ(sectors(0xFFFFFFFF, 0xFFFFFFFF), 0U);
    o.lab.faults().break_query.fail(o.lab.faults().break_query.calls() + 2);
    EXPECT_EQ(sectors(0, 0x5000), 1U) << "a break is asked for before each";
}

TEST(SpiEraseRange, EndsOnABreakWithSuccessAndOnAFailureWithout) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    o.lab.stop_listening();
    o.chip.faults().add(lab::fault(FaultKind::kNeverReady, Operation::kSectorErase, 2));
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(o.slot().erase_range(adapter, 0, 0x5000), QFU_FAILED);
    EXPECT_EQ(o.lab.printed(), "\rErase block 00000000\rErase block 00001000");
    EXPECT_EQ(o.lab.clock().now_ns() - start, 2 * kSecond / 10 + 10 * kSecond)
        << "two pauses and 1000000 tries of 10 us";
    o.lab.faults().break_query.fail(o.lab.faults().break_query.calls() + 1);
    EXPECT_EQ(o.slot().erase_range(adapter, 0, 0x5000), 0U);
    EXPECT_EQ(o.lab.printed(), "");
}

TEST(SpiEraseRange, OnAListWithASectorOfSizeZeroFails) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    QFU_CHIP_ENTRY entry = *static_cast<const QFU_CHIP_ENTRY*>(o.slot().chip);
    entry.sector_size = 0;
    o.slot().chip = &entry;
    EXPECT_EQ(o.slot().erase_range(adapter, 0, 0x5000), QFU_FAILED);
}

TEST(SpiEraseRange, ReachesTheEndOfAListedChipThatFillsTheAddressSpace) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    QFU_CHIP_ENTRY entry = *static_cast<const QFU_CHIP_ENTRY*>(o.slot().chip);
    entry.whole_size = 0xFFFFFFFF;
    entry.sector_size = 0x80000000;
    o.slot().chip = &entry;
    EXPECT_EQ(o.slot().erase_range(adapter, 0, 0xFFFFFFFF), 0U);
    EXPECT_EQ(o.lab.printed(), "\rErase block 00000000\rErase block 80000000");
    o.lab.take_misuses();
}

/// A controller or chip that hangs in one operation.
struct Hang {
    FaultKind kind;
    Operation on;
    void (*run)(Operations&, QFU_ADAPTER&);
    const char* printed;
    std::uint64_t waited_us;
};

/// Shows a case in the test's name.
void PrintTo(const Hang& hang, std::ostream* out) {
    *out << emulator::fault_kind_name(hang.kind) << ": " << emulator::operation_name(hang.on);
}

class SpiTimeout : public testing::TestWithParam<Hang> {};

TEST_P(SpiTimeout, IsBoundedAndHasItsMessage) {
    const Hang& hang = GetParam();
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    o.lab.stop_listening();
    o.chip.faults().add(lab::fault(hang.kind, hang.on));
    const std::uint64_t start = o.lab.clock().now_ns();
    hang.run(o, adapter);
    EXPECT_EQ(o.lab.printed(), hang.printed);
    EXPECT_EQ((o.lab.clock().now_ns() - start) / 1000, hang.waited_us);
    o.lab.take_misuses(); // a new command while the old one hangs
}

void write_two(Operations& o, QFU_ADAPTER& adapter) {
    const std::array<std::uint8_t, 2> bytes{0x55, 0x66};
    EXPECT_EQ(o.slot().write(adapter, 0, bytes.data(), 2), QFU_FAILED) << "at the first";
}
void erase_sector(Operations& o, QFU_ADAPTER& adapter) {
    EXPECT_EQ(o.slot().erase_sector(adapter, 0), QFU_FAILED);
}
void erase_block(Operations& o, QFU_ADAPTER& adapter) {
    EXPECT_EQ(o.slot().erase_block(adapter, 0), QFU_FAILED);
}
void erase_chip(Operations& o, QFU_ADAPTER& adapter) {
    EXPECT_EQ(o.slot().erase_chip(adapter), QFU_FAILED);
}
void read_status(Operations& o, QFU_ADAPTER& adapter) {
    std::uint32_t status = 0xAB;
    EXPECT_EQ(qfu_spiflash_read_status(adapter, status), QFU_FAILED);
    EXPECT_EQ(status, 0xABU) << "left as it was";
    (void)o;
}

using enum FaultKind;
using enum Operation;

// A limit of N polls is N times 10 us; a sector erase pauses for 100 ms besides.
constexpr Hang kHangs[] = {
    {kControllerBusy, kReadStatus,  read_status,  "366 timeout\r\n",                         1'000'000  },
    {kControllerBusy, kWriteEnable, write_two,    "write enable failed,flash status 2.\r\n",
     2'000'000                                                                                          },
    {kControllerBusy, kWriteEnable, erase_sector, "write enable failed,flash status 2.\r\n",
     2'000'000                                                                                          },
    {kControllerBusy, kWriteEnable, erase_chip,   "write enable failed,flash status 2.\r\n",
     2'000'000                                                                                          },
    {kControllerBusy, kProgram,     write_two,    "1111 timeout...\r\n",                     2'000'000  },
    {kControllerBusy, kSectorErase, erase_sector, "866 timeout\r\n",                         1'000'000  },
    {kControllerBusy, kBlockErase,  erase_block,  "909 timeout\r\n",                         1'000'000  },
    {kControllerBusy, kChipErase,   erase_chip,   "970 timeout\r\n",                         1'000'000  },
    {kNeverReady,     kWriteEnable, write_two,    "440...\r\n",                              30'000'000 },
    {kNeverReady,     kProgram,     write_two,    "write failed,flash status 1.\r\n",        3'000'000  },
    {kNeverReady,     kSectorErase, erase_sector, "",                                        10'100'000 },
    {kIgnored,        kSectorErase, erase_sector, "",                                        10'100'000 },
    {kNeverReady,     kBlockErase,  erase_block,  "",                                        10'100'000 },
    {kIgnored,        kChipErase,   erase_chip,   "",                                        100'000'000},
};
INSTANTIATE_TEST_SUITE_P(Hangs, SpiTimeout, testing::ValuesIn(kHangs));

TEST(SpiStatus, APollGoesOnBehindAReadThatFails) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    auto fault = lab::fault(FaultKind::kControllerBusy, Operation::kReadStatus);
    fault.times = 2;
    o.chip.faults().add(fault);
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(qfu_spiflash_wait_status(adapter, 3, 0, 5), 0U);
    EXPECT_EQ((o.lab.clock().now_ns() - start) / 1000, 2U * (1'000'000 + 10))
        << "100000 polls and a stall, twice";
    EXPECT_EQ(o.lab.printed(), "366 timeout\r\n391...\r\n366 timeout\r\n391...\r\n");
    EXPECT_EQ(qfu_spiflash_wait_status(adapter, 3, 2, 5), QFU_FAILED);
    o.lab.take_misuses();
}

TEST(SpiWriteEnable, ReportsStatusZeroWhenEvenThatCannotBeRead) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    o.lab.stop_listening();
    o.chip.faults().add(lab::fault(FaultKind::kControllerBusy, Operation::kWriteEnable));
    o.chip.faults().add(lab::fault(FaultKind::kControllerBusy, Operation::kReadStatus));
    EXPECT_EQ(qfu_spiflash_write_enable(adapter), QFU_FAILED);
    EXPECT_EQ(o.lab.printed(), "366 timeout\r\nwrite enable failed,flash status 0.\r\n");
    o.lab.take_misuses();
}

TEST(SpiRegisters, ReadsThatFailTimeOutOnKind1AndPassForDataOnKind4) {
    Operations indexed(1);
    indexed.lab.faults().memory_read.fail(1, 0);
    indexed.discover();
    EXPECT_EQ(indexed.lab.printed(), "\r\nNo found any SPI Flash dev...1327\r\n");
    EXPECT_EQ(indexed.lab.clock().now_ns(), 2 * kSecond) << "100000 polls for each opcode";
    indexed.lab.take_misuses(); // the chip does not know opcode 15

    Operations window(4);
    QFU_ADAPTER& adapter = window.ready();
    window.lab.faults().memory_read.fail(window.lab.faults().memory_read.calls() + 1, 0);
    Bytes buffer(4);
    EXPECT_EQ(window.slot().read(adapter, 0, buffer.data(), 4), 0U);
    EXPECT_EQ(buffer, Bytes(4, 0x5A));
}

TEST(SpiLookup, TriesTheNextOpcodeWhenAChipIsSilent) {
    chiplist::ChipList list{
        1, 1, {0x9F,        0x15},
          {           }
    };
    QFU_CHIP_ENTRY entry{};
    entry.id_len = 2;
    entry.id_bytes = {0x1F, 0x63};
    entry.whole_size = 0x40000;
    entry.sector_size = entry.block_size = 0x10000;
    list.chips.push_back({entry, {}, ""});
    Operations o(1, "AT25F2048");
    o.lab.write_file("spilist.bin", chiplist::encode(list));
    o.discover();
    EXPECT_EQ(o.lab.cycles(), "0.cs1  9F         < 00 00 00 00  unknown\n"
                              "0.cs1  15         < 1F 63 1F 63  read id\n");
    EXPECT_EQ(static_cast<const QFU_CHIP_ENTRY*>(o.slot().chip)->whole_size, 0x40000U);
    o.lab.take_misuses(); // the chip does not know opcode 9F
}

TEST(SpiLookup, TakesAnAnswerOfZeroForNoChipEvenForARecordThatMatchesAll) {
    chiplist::ChipList list{1, 1, {0x9F}, {}};
    QFU_CHIP_ENTRY any{};
    any.whole_size = any.sector_size = any.block_size = 0x1000;
    list.chips.push_back({any, {}, ""});
    Operations o(4);
    o.chip.faults().add(lab::fault(FaultKind::kNoAnswer, Operation::kReadId));
    o.lab.write_file("spilist.bin", chiplist::encode(list));
    o.discover();
    EXPECT_EQ(o.slot().chip, nullptr);
    EXPECT_EQ(o.context.adapters[0].current_slot, nullptr);
    EXPECT_EQ(o.lab.printed(), "\r\nNo found any SPI Flash dev...1327\r\n");
}

TEST(SpiLookup, EndsWithTheFirstRecordOfSizeZero) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    QFU_CHIP_LIST list = *o.context.chip_list;
    list.records[0].whole_size = 0;
    list.id_opcodes[1] = 0;
    o.context.chip_list = &list;
    EXPECT_EQ(qfu_spiflash_lookup(adapter), nullptr);
}

TEST(SpiUnlock, ClearsStatusThenAsksEverySector) {
    // With the times of the part, so that it is busy behind the status write.
    Operations o(1, "AT25DF041A", {});
    o.discover();
    EXPECT_EQ(o.lab.cycles(), lab::expected("spi-unlock"));
    EXPECT_EQ(o.lab.clock().now_ns(), kSecond / 50) << "20 ms behind the status write";
}

TEST(SpiUnlock, LiftsTheProtectionOfSectorsThatAreStillProtected) {
    Operations o(1, "AT25DF041A");
    o.chip.faults().add(lab::fault(FaultKind::kNotStored, Operation::kWriteStatus));
    o.discover();
    EXPECT_EQ(o.chip.count(Operation::kUnprotectSector), 11U);
    EXPECT_NE(o.lab.cycles().find("0.cs1  3C @078000 < FF           query protection\n"
                                  "0.cs1  06                        write enable\n"
                                  "0.cs1  05         < 06           read status\n"
                                  "0.cs1  39 @078000                unprotect sector\n"
                                  "0.cs1  3C @078000 < 00           query protection\n"),
              std::string::npos);
}

TEST(SpiUnlock, GoesOnWhenASectorNeverReadsBackAsUnprotected) {
    Operations o(1, "AT25DF041A");
    QFU_ADAPTER& adapter = o.ready();
    o.lab.stop_listening();
    auto wrong = lab::fault(FaultKind::kWrongData, Operation::kQueryProtection);
    o.chip.faults().add(wrong);
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(qfu_spiflash_unprotect_sector(adapter, 0x79999), 0U);
    EXPECT_EQ(o.lab.clock().now_ns() - start, kSecond) << "100000 queries of 10 us";
    EXPECT_EQ(o.lab.printed(), "");
}

TEST(SpiUnlock, ReportsAControllerThatHangsInAQuery) {
    Operations o(1, "AT25DF041A");
    QFU_ADAPTER& adapter = o.ready();
    auto hang = lab::fault(FaultKind::kControllerBusy, Operation::kQueryProtection);
    hang.times = 2;
    o.chip.faults().add(hang);
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(qfu_spiflash_unprotect_sector(adapter, 0), 0U);
    EXPECT_EQ(o.lab.printed(), "521 timeout\r\n569 timeout\r\n");
    EXPECT_EQ((o.lab.clock().now_ns() - start) / 1000, 2U * 100'000 + 10) << "10000 polls each";
    o.lab.take_misuses();
}

TEST(SpiUnlock, GivesUpOnAControllerThatHangsInTheUnprotect) {
    Operations o(1, "AT25DF041A");
    QFU_ADAPTER& adapter = o.ready();
    o.lab.stop_listening();
    o.chip.protect_all_sectors();
    o.chip.faults().add(lab::fault(FaultKind::kControllerBusy, Operation::kUnprotectSector));
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(qfu_spiflash_unprotect_sector(adapter, 0), QFU_FAILED);
    EXPECT_EQ(o.lab.printed(), "");
    EXPECT_EQ(o.lab.clock().now_ns() - start, kSecond) << "100000 polls";

    Operations closed(1, "AT25DF041A");
    QFU_ADAPTER& latch = closed.ready();
    closed.chip.protect_all_sectors();
    closed.chip.faults().add(lab::fault(FaultKind::kControllerBusy, Operation::kWriteEnable));
    EXPECT_EQ(qfu_spiflash_unprotect_sector(latch, 0), QFU_FAILED);
    EXPECT_EQ(closed.chip.count(Operation::kUnprotectSector), 0U);
    closed.lab.printed();
    closed.lab.take_misuses();
}

/// Sets one bit that no chip sends in what the data register gives, unless the value is `keep`.
template <std::uint32_t keep>
std::uint32_t read_with_stray_bit(QFU_ADAPTER& adapter, std::uint32_t reg) {
    const std::uint32_t value = qfu_spireg_read_indexed(adapter, reg);
    return reg != QFU_SPI_DATA_OUT || value == keep ? value : value | 0x100;
}

TEST(SpiUnlock, WaitsForTheWholeDataRegisterToBeZero) {
    Operations o(1, "AT25DF041A");
    QFU_ADAPTER& adapter = o.ready();
    o.lab.stop_listening();
    o.chip.protect_all_sectors();
    o.slot().reg_read = read_with_stray_bit<0x0E>; // the status with the latch set stays as it is
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(qfu_spiflash_unprotect_sector(adapter, 0), 0U);
    EXPECT_EQ(o.lab.clock().now_ns() - start, kSecond) << "100000 queries";
}

TEST(SpiUnlock, SendsTheWindowsOwnWords) {
    Operations o(4, "AT25DF041A");
    o.lab.registers();
    o.discover();
    const std::string log = controller_log(o.lab.registers());
    EXPECT_NE(log.find("8 < 00000000\n0 < 09130115\n"), std::string::npos);
    EXPECT_NE(log.find("4 < 0007A000\n0 < 09133613\n0 > 09133612\n12 > 00000000\n4 < 0007C000\n"),
              std::string::npos);
    // Opcode 36 means "protect" to this chip; without write enable it does nothing.
    EXPECT_EQ(o.lab.take_misuses().size(), 11U);
    o.chip.contents()[0] = 0;
    EXPECT_EQ(o.slot().erase_sector(o.context.adapters[0], 0), 0U);
    EXPECT_EQ(o.chip.contents()[0], 0xFF) << "the chip is open";
}

TEST(SpiUnlock, LooksAtTheLowByteOfTheFirstAnswer) {
    Operations o(4, "AT25DF041A");
    QFU_ADAPTER& adapter = o.ready();
    o.lab.take_misuses();
    // A window's query receives nothing, so that what was read before still stands in its register.
    o.chip.contents()[0] = 0;
    Bytes buffer(4);
    o.slot().read(adapter, 0, buffer.data(), 4);
    EXPECT_EQ(buffer, (Bytes{0, 0xFF, 0xFF, 0xFF}));
    o.lab.cycles();
    EXPECT_EQ(qfu_spiflash_unprotect_sector(adapter, 0), 0U);
    EXPECT_EQ(o.lab.cycles(), "0.cs1  36 @000000 > 00           protect sector\n");
    EXPECT_EQ(o.lab.take_misuses().size(), 1U) << "opcode 36 without write enable";
}

/// What a chip of maker BF answers to the reader below.
std::uint32_t answer = 0;

std::uint32_t read_with_other_id(QFU_ADAPTER& adapter, std::uint32_t reg) {
    const std::uint32_t value = qfu_spireg_read_indexed(adapter, reg);
    return (value & 0xFF) == 0xBF ? answer : value;
}

TEST(SpiUnlock, IsDecidedByTheWholeIdentification) {
    Operations status_only(1, "SST25VF040B");
    status_only.discover();
    EXPECT_EQ(status_only.chip.count(Operation::kWriteStatus), 1U);
    EXPECT_EQ(status_only.chip.count(Operation::kUnknown), 0U) << "no protection queries";
    EXPECT_EQ(status_only.chip.status(), 0);

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

    chiplist::ChipList list{1, 1, {0x9F}, {}};
    QFU_CHIP_ENTRY whole{};
    whole.id_len = 3;
    whole.id_bytes = {0x1F, 0x44, 0x01};
    whole.whole_size = whole.sector_size = whole.block_size = 0x1000;
    list.chips.push_back({whole, {}, ""});
    Operations nothing(1, "AT25DF041A");
    nothing.lab.write_file("spilist.bin", chiplist::encode(list));
    nothing.discover();
    EXPECT_EQ(nothing.lab.cycles(), "0.cs1  9F         < 1F 44 01 1F  read id\n");
}

TEST(SpiUnlock, AStatusWriteThatHangsIsWaitedForThroughTheStatus) {
    Operations o(4, "SST25VF040B");
    o.discover();
    QFU_ADAPTER& adapter = o.context.adapters[0];
    o.lab.stop_listening();
    o.chip.faults().add(lab::fault(FaultKind::kControllerBusy, Operation::kWriteStatus));
    EXPECT_EQ(qfu_spiflash_unprotect_all(adapter), 0U);
    EXPECT_EQ(o.lab.printed(), "");
    o.chip.faults().add(lab::fault(FaultKind::kNeverReady, Operation::kWriteStatus));
    const std::uint64_t start = o.lab.clock().now_ns();
    EXPECT_EQ(qfu_spiflash_unprotect_all(adapter), QFU_FAILED);
    EXPECT_EQ(o.lab.printed(), "684 timeout\r\n");
    EXPECT_EQ(o.lab.clock().now_ns() - start, kSecond / 50 + kSecond + 30 * kSecond);
    o.lab.take_misuses();
}

TEST(SpiEraseChip, AsksTheSectorsOfItsMakerFirst) {
    Operations o(1, "AT25DF041A");
    QFU_ADAPTER& adapter = o.ready();
    EXPECT_EQ(o.slot().erase_chip(adapter), 0U);
    EXPECT_EQ(o.chip.count(Operation::kQueryProtection), 22U);
    EXPECT_EQ(o.chip.count(Operation::kUnprotectSector), 0U);
    QFU_CHIP_ENTRY longer = *static_cast<const QFU_CHIP_ENTRY*>(o.slot().chip);
    longer.id_len = 3;
    longer.id_bytes[2] = 0x01;
    o.slot().chip = &longer;
    EXPECT_EQ(o.slot().erase_chip(adapter), 0U);
    EXPECT_EQ(o.chip.count(Operation::kQueryProtection), 33U) << "the first byte decides";
}

TEST(ProtectionSectors, HaveElevenBases) {
    EXPECT_EQ(qfu_spiflash_sector_base(0), 0U);
    EXPECT_EQ(qfu_spiflash_sector_base(0xFFFF), 0U);
    EXPECT_EQ(qfu_spiflash_sector_base(0x77FFF), 0x70000U);
    EXPECT_EQ(qfu_spiflash_sector_base(0x78000), 0x78000U);
    EXPECT_EQ(qfu_spiflash_sector_base(0x7BFFF), 0x7A000U);
    EXPECT_EQ(qfu_spiflash_sector_base(0xFFFFFFFF), 0x7C000U);
}

TEST(SpiShowInfo, NamesWhatIsMissing) {
    Operations o(4);
    QFU_ADAPTER& adapter = o.ready();
    o.slot().show_info(adapter);
    EXPECT_EQ(o.lab.printed(), "SPI FLASH Chip Whole Size=80000, ID[EF 30 13].\r\n");
    o.slot().chip = nullptr;
    o.slot().show_info(adapter);
    EXPECT_EQ(o.lab.printed(), "No detected any SPI Flash chip...1215\r\n");
    adapter.current_slot = nullptr;
    o.slot().show_info(adapter);
    EXPECT_EQ(o.lab.printed(), "No target interface ...1208.\r\n");
}

} // namespace
