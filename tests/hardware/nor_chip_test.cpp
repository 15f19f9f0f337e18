#include "hardware/machine.h"

#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace emulator;

using Misuses = std::vector<std::string>;

/// A chip on a bench.
struct Bench {
    explicit Bench(std::uint32_t id = 0x22ED0020, BusyTimes times = kNeverBusy)
        : chip(*find_nor_part(id), "nor", clock, journal, times) {}

    /// Write cycles as "address>data ..."; the command that the last of them completes.
    Operation write(const std::string& cycles) {
        Operation operation = Operation::kUnknown;
        std::istringstream in(cycles);
        std::uint32_t address = 0;
        std::uint16_t data = 0;
        for (char to = 0; in >> std::hex >> address >> to >> data;) {
            operation = chip.write(address, data);
        }
        return operation;
    }
    Operation erase_sector(std::uint32_t word) {
        return write("555>AA 2AA>55 555>80 555>AA 2AA>55 " + hex(word, 1) + ">30");
    }
    Operation program(std::uint32_t word, std::uint16_t data) {
        return write("555>AA 2AA>55 555>A0 " + hex(word, 1) + ">" + hex(data, 1));
    }

    VirtualClock clock;
    Journal journal;
    NorChip chip;
};

TEST(NorChip, ShowsItsIdentificationUntilItIsReset) {
    Bench b;
    EXPECT_EQ(b.chip.read(0), 0xFFFF);
    EXPECT_EQ(b.write("555>AA 2AA>55 555>90"), Operation::kReadId);
    EXPECT_EQ(b.chip.read(0), 0x0020);
    EXPECT_EQ(b.chip.read(1), 0x22ED);
    EXPECT_EQ(b.write("123>F0"), Operation::kReset);
    EXPECT_EQ(b.chip.read(0), 0xFFFF);
    EXPECT_EQ(b.journal.take_misuses(), Misuses{});
}

TEST(NorChip, ClearsBitsWhenItProgramsAndSetsThemOnlyWhenItErases) {
    Bench b;
    EXPECT_EQ(b.program(0x800, 0x0FF0), Operation::kProgram);
    EXPECT_EQ(b.journal.take_misuses(), Misuses{});
    EXPECT_EQ(b.program(0x800, 0xF0F1), Operation::kProgram);
    EXPECT_EQ(b.chip.read(0x800), 0x00F0);
    EXPECT_EQ(b.journal.take_misuses(),
              Misuses{"nor: program of F0F1 over 0FF0 at 001000 sets bits"});
    EXPECT_EQ(b.erase_sector(0xFFF), Operation::kSectorErase);
    EXPECT_EQ(b.chip.read(0x800), 0xFFFF);
}

TEST(NorChip, HasBootBlocksAtTheBottomAndSomeAtTheTopToo) {
    for (const auto& [id, at, size] :
         {std::tuple(0x22ED0020U, 0U, 0x2000U), std::tuple(0x22ED0020U, 0xE000U, 0x2000U),
          std::tuple(0x22ED0020U, 0x10000U, 0x10000U), std::tuple(0x22ED0020U, 0x7F0000U, 0x10000U),
          std::tuple(0x257E00ECU, 0x3E0000U, 0x10000U),
          std::tuple(0x257E00ECU, 0x3FE000U, 0x2000U)}) {
        Bench b(id);
        std::fill(b.chip.contents().begin(), b.chip.contents().end(), std::uint8_t{0});
        b.erase_sector((at + size / 2) / 2);
        EXPECT_EQ(std::count(b.chip.contents().begin(), b.chip.contents().end(), 0xFF), size);
        EXPECT_EQ(b.chip.contents()[at], 0xFF) << id;
        EXPECT_EQ(b.chip.contents()[at + size - 1], 0xFF) << id;
    }
}

TEST(NorChip, IsBusyForAWhileAndThenIgnoresEveryCycle) {
    Bench b(0x22ED0020, BusyTimes{});
    b.erase_sector(0);
    EXPECT_FALSE(b.chip.ready());
    EXPECT_EQ(b.write("0>F0"), Operation::kUnknown);
    b.chip.read(0);
    EXPECT_EQ(b.journal.take_misuses(), (Misuses{"nor: cycle 000000 > 00F0 while the chip is busy",
                                                 "nor: read at 000000 while the chip is busy"}));
    b.clock.advance_us(30'000);
    EXPECT_TRUE(b.chip.ready());
    b.program(0, 0);
    b.clock.advance_us(9);
    EXPECT_FALSE(b.chip.ready());
    b.clock.advance_us(1);
    EXPECT_TRUE(b.chip.ready());
}

TEST(NorChip, DropsACommandAtTheFirstCycleThatDoesNotBelong) {
    Bench b;
    EXPECT_EQ(b.write("555>AA 2AA>56 555>90"), Operation::kUnknown);
    EXPECT_EQ(b.journal.take_misuses().size(), 2U);
    EXPECT_EQ(b.chip.read(0), 0xFFFF);
    b.erase_sector(0x400000);
    EXPECT_EQ(b.journal.take_misuses(),
              Misuses{"nor: sector erase at 400000, past the end of the chip"});
}

TEST(NorChip, LeavesBypassModeByItsOwnResetOrTheResetPin) {
    Bench b;
    const std::string enter = "555>AA 2AA>55 555>20";
    EXPECT_EQ(b.write(enter), Operation::kUnlockBypass);
    EXPECT_EQ(b.write("0>A0 7>1234"), Operation::kProgram);
    EXPECT_EQ(b.write("0>F0"), Operation::kUnknown);
    EXPECT_EQ(b.journal.take_misuses(),
              Misuses{"nor: cycle 000000 > 00F0 starts or continues no command"});
    EXPECT_EQ(b.write("0>A0 8>5678"), Operation::kProgram) << "still in the mode";
    EXPECT_EQ(b.write("0>90 0>00"), Operation::kBypassReset);
    EXPECT_EQ(b.chip.read(7), 0x1234);
    EXPECT_EQ(b.chip.read(8), 0x5678);
    b.write(enter);
    b.chip.reset();
    EXPECT_EQ(b.write("0>F0"), Operation::kReset);
    EXPECT_EQ(b.journal.take_misuses(), Misuses{});
}

TEST(NorChip, ObeysFaults) {
    Bench b;
    Fault stuck{FaultKind::kStuckBits, Operation::kProgram, 0x1001, 1, 0, 0x02};
    b.chip.faults().add(stuck);
    b.program(0x800, 0x0000);
    b.program(0x801, 0x0000);
    EXPECT_EQ(b.chip.read(0x800), 0x0202) << "in both bytes of the word";
    EXPECT_EQ(b.chip.read(0x801), 0x0000);
    b.chip.faults().clear();
    b.chip.faults().add({FaultKind::kNotStored, Operation::kSectorErase, std::nullopt, 1, 1, 0});
    b.erase_sector(0x800);
    EXPECT_EQ(b.chip.read(0x801), 0x0000);
    b.erase_sector(0x800);
    EXPECT_EQ(b.chip.read(0x801), 0xFFFF);
    b.chip.faults().add({FaultKind::kIgnored, Operation::kProgram, std::nullopt, 1, 1, 0});
    b.program(0, 0);
    EXPECT_EQ(b.chip.read(0), 0xFFFF);
    b.chip.faults().add({FaultKind::kNoAnswer, Operation::kRead, 0x10, 1, 0, 0});
    b.program(8, 0);
    EXPECT_EQ(b.chip.read(8), 0xFFFF);
}

/// An adapter with a NOR controller and its registers.
struct NorBoard {
    NorBoard() : adapter(machine.add(*find_adapter_model(0x1E5D, 0xC703), {0, 2, 0}, 0)) {
        machine.add_nor_chip(adapter, *find_nor_part(0x22ED0020), kNeverBusy);
        machine.assign_bars();
    }
    void write(std::uint32_t offset, std::uint32_t value) {
        machine.memory_write(0xC0020000 + offset, value, 4);
    }
    std::uint32_t read(std::uint32_t offset) { return machine.memory_read(0xC0020000 + offset, 4); }
    std::uint32_t window(std::uint32_t offset) {
        return machine.memory_read(0xC0000000 + offset, 2);
    }
    Misuses misuses() { return machine.journal().take_misuses(); }

    /// Brings the interface up and has the window show the chip's start.
    void set_up() {
        write(0x10100, 0);
        write(0xC950, 0x13);
        clock.advance_us(10);
        write(0xC950, 0x03);
        write(0x8420, 0x1000);
        write(0x8428, 0xFC000001);
    }
    void load_reset() {
        write(0xC910, 0);
        write(0xC91C, 0xF0);
    }

    VirtualClock clock;
    Machine machine{clock};
    Adapter& adapter;
};

TEST(NorController, StartsNothingBeforeItIsSetUp) {
    NorBoard b;
    b.load_reset();
    b.write(0xC940, 0x01010000);
    EXPECT_EQ(b.misuses(), Misuses{"0.cs0: sequence started before the interface was set up"});
    b.write(0xC950, 0x13);
    b.clock.advance_us(9);
    b.write(0xC950, 0x03);
    EXPECT_EQ(b.misuses(), Misuses{"0.cs0: reset pulse shorter than 10 us"});
    b.set_up();
    b.write(0xC940, 0x01010000);
    EXPECT_EQ(b.read(0xC944), 1U);
    EXPECT_EQ(b.read(0xC954), 0x20000U);
    EXPECT_EQ(b.misuses(), Misuses{});
}

TEST(NorController, WantsFreshCyclesAndAnAcknowledgedEnd) {
    NorBoard b;
    b.set_up();
    b.load_reset();
    b.write(0xC940, 0x01010000);
    b.write(0xC91C, 0xF0);
    b.write(0xC940, 0x01010000);
    EXPECT_EQ(b.misuses(),
              (Misuses{"0.cs0: sequence started before the end of the last was acknowledged",
                       "0.cs0: sequence with a cycle 1 of the last one"}));
    b.write(0xC944, 0xFFFFFFFF);
    EXPECT_EQ(b.read(0xC944), 0U);
    b.write(0xC940, 0x07010000);
    b.write(0x8420, 0x2000);
    b.write(0x8424, 1);
    b.write(0xC954, 0);
    EXPECT_EQ(b.misuses(),
              (Misuses{"0.cs0: sequence command 07010000", "0.cs0: window control 00002000",
                       "0.cs0: window high 00000001", "0.cs0: write to the ready register"}));
}

TEST(NorController, ShowsThePageThatTheWindowBaseNames) {
    NorBoard b;
    b.set_up();
    const auto contents = b.adapter.nor()->chip()->contents();
    contents[0x402002] = 0x34;
    contents[0x402003] = 0x12;
    b.write(0x8428, 0xFC402001);
    EXPECT_EQ(b.window(2), 0x1234U);
    EXPECT_EQ(b.machine.memory_read(0xC0000000, 4), 0x1234FFFFU);
    EXPECT_EQ(b.misuses(), Misuses{});
    b.write(0x8428, 0xFC401001);
    b.window(0);
    b.write(0x8428, 0xFC402000);
    b.window(0);
    b.write(0x8428, 0xFC402001);
    b.write(0x8420, 0x3001);
    b.window(0);
    EXPECT_EQ(b.misuses().size(), 3U) << "half a page, a closed window, a window for commands";
    b.machine.memory_read(0xC0000001, 2);
    b.machine.memory_read(0xC0028420, 2);
    EXPECT_EQ(b.misuses(),
              (Misuses{"0: read of 2 bytes at BAR0+00001", "0: read of 2 bytes at BAR2+08420"}));
}

} // namespace
