#include "hardware/machine.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <random>

namespace {

using namespace emulator;

/// A machine with one adapter, its BARs assigned.
struct Board {
    explicit Board(std::uint16_t device, BusyTimes times = kNeverBusy)
        : adapter(machine.add(*find_adapter_model(0x1E5D, device), {0, 2, 0}, 0x11)) {
        machine.add_spi_chip(adapter, *find_spi_part("W25X40"), times);
        machine.assign_bars();
    }
    std::string complaint() {
        const auto misuses = machine.journal().take_misuses();
        return misuses.size() == 1 ? misuses[0] : std::to_string(misuses.size()) + " complaints";
    }
    void write(std::uint32_t offset, std::uint32_t value) {
        machine.memory_write(0xC0000000 + offset, value, 4);
    }
    std::uint32_t read(std::uint32_t offset) { return machine.memory_read(0xC0000000 + offset, 4); }

    VirtualClock clock;
    Machine machine{clock};
    Adapter& adapter;
};

TEST(PciFunction, SizesItsBarsLikeHardware) {
    Board b(0xC703);
    PciFunction& pci = b.adapter.pci();
    EXPECT_EQ(pci.read(0, 4), 0xC7031E5DU);
    EXPECT_EQ(pci.read(0x0A, 2), 0x0104U);
    EXPECT_EQ(pci.read(0x2E, 2), 0xC703U);
    pci.write(0x10, 0xFFFFFFFF, 4);
    EXPECT_EQ(pci.read(0x10, 4), 0xFFFFE008U) << "prefetchable";
    pci.write(0x14, 0xFFFFFFFF, 4);
    EXPECT_EQ(pci.read(0x14, 4), 0U);
    pci.write(0x18, 0xFFFFFFFF, 4);
    EXPECT_EQ(pci.read(0x18, 4), 0xFFFE0000U);
    pci.write(0x1A, 0xABCD, 2);
    EXPECT_EQ(pci.read(0x18, 4), 0xABCC0000U);
    pci.write(0x30, 0xFFFFFFFF, 4);
    EXPECT_EQ(pci.read(0x30, 4), 0U);
}

TEST(PciFunction, DecodesMemoryOnlyWhenItIsTold) {
    Board b(0xC705);
    EXPECT_TRUE(b.adapter.pci().locate(0xC001FFFF));
    EXPECT_FALSE(b.adapter.pci().locate(0xC0020000));
    b.adapter.pci().write(4, 0, 2);
    EXPECT_FALSE(b.adapter.pci().locate(0xC0000000));
    EXPECT_EQ(b.machine.memory_read(0xC0000000, 4), 0xFFFFFFFFU);
}

TEST(Machine, AnswersAllOnesWhereThereIsNothing) {
    Board b(0xC705);
    EXPECT_EQ(b.machine.config_read({0, 3, 0}, 0, 2), 0xFFFFU);
    EXPECT_EQ(b.machine.config_read({0, 2, 1}, 0, 4), 0xFFFFFFFFU);
    EXPECT_EQ(b.machine.memory_read(0xD0000000, 2), 0xFFFFU);
}

TEST(Adapter, ComplainsAboutRegistersAndWidthsThatItDoesNotHave) {
    Board b(0xC705);
    b.read(0x1C7FC);
    EXPECT_EQ(b.complaint(), "0: read of a register that is not there at BAR0+1C7FC");
    b.write(0x1C820, 0);
    EXPECT_EQ(b.complaint(), "0: write to a register that is not there at BAR0+1C820");
    b.machine.memory_read(0xC001C800, 2);
    EXPECT_EQ(b.complaint(), "0: read of 2 bytes at BAR0+1C800");
}

TEST(WindowController, RunsACycleUntilItsBusyBitWasSeenClear) {
    Board b(0xC705);
    b.write(0x1C800, 0x09139F45);
    b.read(0x1C80C);
    EXPECT_EQ(b.complaint(), "0.cs1: received data read before the cycle has ended");
    b.write(0x1C804, 0);
    EXPECT_EQ(b.complaint(), "0.cs1: register 4 written while a cycle runs");
    b.write(0x1C800, 0x09139F45);
    EXPECT_EQ(b.read(0x1C800), 0x09139F44U);
    EXPECT_EQ(b.read(0x1C80C), 0xEF1330EFU);
    b.write(0x1C800, 0x09120501);
    EXPECT_EQ(b.complaint(), "0.cs1: command word 09120501");
    b.read(0x1C800);
    b.write(0x1C804, 0x1000000);
    EXPECT_EQ(b.complaint(), "0.cs1: address 01000000 has more than 24 bits");
}

TEST(WindowController, StaysBusyWhileAFaultHoldsIt) {
    Board b(0xC705);
    Fault hang;
    hang.kind = FaultKind::kControllerBusy;
    hang.times = 1;
    b.adapter.spi().chip()->faults().add(hang);
    b.write(0x1C800, 0x09130601);
    EXPECT_EQ(b.read(0x1C800) & 1, 1U);
    EXPECT_EQ(b.read(0x1C800) & 1, 1U);
    b.write(0x1C800, 0x09130601);
    EXPECT_EQ(b.complaint(), "0.cs1: register 0 written while a cycle runs");
    EXPECT_EQ(b.read(0x1C800) & 1, 0U);
}

TEST(IndexedController, NeedsItsSetUpAndItsIndexSpace) {
    Board b(0xC709);
    b.write(0xA8, 0x06000000);
    b.write(0xAC, 0x009F2430);
    EXPECT_EQ(b.complaint(), "0: SPI cycle before the controller was set up");
    b.write(0xA8, 0x00000000);
    EXPECT_EQ(b.read(0xAC) & 0x10, 0U);
    EXPECT_EQ(b.complaint(), "0: read behind index word 00000000");
    b.write(0xA8, 0x02000070);
    b.write(0xA8, 0);
    b.write(0xA8, 0x06000014);
    b.write(0xAC, 0);
    b.write(0xA8, 0x06000000);
    b.write(0xAC, 0x009F2430);
    EXPECT_EQ(b.read(0xAC), 0x009F2420U);
    b.write(0xA8, 0x06000008);
    EXPECT_EQ(b.read(0xAC), 0xEF1330EFU);

    Board generation2(0xC70F);
    generation2.write(0xA8, 0);
    generation2.write(0xAC, 0x00060030);
    generation2.write(0xA8, 0x06000000);
    generation2.read(0xAC);
    EXPECT_EQ(generation2.complaint(), "0: read behind index word 06000000");
}

TEST(IndexedController, LosesItsDataOutToWhatItReceives) {
    Board b(0xC70F);
    const auto run = [&](std::uint32_t command) {
        b.write(0xA8, 0);
        b.write(0xAC, command);
        while ((b.read(0xAC) & 0x10) != 0) {
        }
    };
    b.write(0xA8, 8);
    b.write(0xAC, 0x5A);
    run(0x00060030);
    run(0x00052130); // the status comes in where the byte was
    run(0x00021130);
    EXPECT_EQ(b.adapter.spi().chip()->contents()[0], 0x02);
}

TEST(Adapter, AnswersTheSameOnTheShortWayAndOnTheLongOne) {
    constexpr std::uint32_t kSpi = 0x1C800;
    constexpr std::array kRegisters = {0U, 0U, 0U, 4U, 8U, 12U, 2U, 16U};
    // Plain cycles, and ones that look like them: with other bytes, an address, or wrong bits.
    constexpr std::array kCommands = {0x09130601U, 0x09130515U, 0x09130213U, 0x09130343U,
                                      0x09130545U, 0x09130611U, 0x09130223U, 0x09130383U,
                                      0x09132003U, 0x09130401U, 0x09140515U, 0x09130517U,
                                      0x09139F45U, 0x09130311U, 0U};
    constexpr std::array kAddresses = {0U, 1U, 0x7FFFCU, 0x7FFFDU, 0x7FFFFU, 0x80000U, 0x1000000U};
    Board boards[] = {Board(0xC705), Board(0xC705)};
    std::array<std::string, 2> cycles;
    std::mt19937 generator(1);
    const auto pick = [&](const auto& values) { return values[generator() % values.size()]; };
    int taken = 0;
    for (std::size_t i = 0; i < 2; ++i) {
        boards[i].machine.journal().listen_to_cycles([&, i](auto line) { cycles[i] += line; });
        boards[i].read(kSpi); // the way is known from now on
    }
    Board& quick = boards[0];
    Board& slow = boards[1];
    for (int i = 0; i < 20000; ++i) {
        const std::uint32_t reg = pick(kRegisters);
        const std::uint32_t at = kSpi + reg;
        if (generator() % 2 == 0) {
            std::uint32_t value = 0;
            const bool done = quick.machine.read_shortly(0xC0000000 + at, value);
            taken += done ? 1 : 0;
            ASSERT_EQ(done ? value : quick.read(at), slow.read(at)) << i;
        } else {
            const std::uint32_t value = reg == 0   ? pick(kCommands)
                                        : reg == 4 ? pick(kAddresses)
                                                   : static_cast<std::uint32_t>(generator());
            if (quick.machine.write_shortly(0xC0000000 + at, value)) {
                ++taken;
            } else {
                quick.write(at, value);
            }
            slow.write(at, value);
        }
    }
    EXPECT_GT(taken, 5000);
    EXPECT_EQ(cycles[0], cycles[1]);
    EXPECT_EQ(quick.machine.journal().misuse_count(), slow.machine.journal().misuse_count());
    EXPECT_EQ(quick.machine.journal().misuses(), slow.machine.journal().misuses());
    EXPECT_EQ(quick.machine.accesses(), slow.machine.accesses());
    EXPECT_TRUE(std::ranges::equal(quick.adapter.spi().chip()->contents(),
                                   slow.adapter.spi().chip()->contents()));
}

TEST(Adapter, ClosesTheShortWayToRegistersThatHaveMovedOrAreWatched) {
    constexpr void (*kCloses[])(Board&) = {
        [](Board& b) { b.adapter.pci().write(4, 0, 2); },
        [](Board& b) { b.adapter.pci().write(0x10, 0xC0020000, 4); },
        [](Board& b) { b.adapter.add_power_fault({.nth = 3}); },
        [](Board& b) { b.machine.journal().listen_to_registers([](auto) {}); },
    };
    for (const auto close : kCloses) {
        Board b(0xC705);
        b.read(0x1C800);
        std::uint32_t value = 0;
        EXPECT_TRUE(b.machine.read_shortly(0xC001C800, value));
        close(b);
        EXPECT_FALSE(b.machine.read_shortly(0xC001C800, value));
    }
}

/// A board whose chip holds zeros but for an erased first page, with a write enabled.
struct Victim : Board {
    explicit Victim(const PowerFault& fault) : Board(0xC705, {100, 100, 100}) {
        chip = adapter.spi().chip();
        std::fill(chip->contents().begin() + 256, chip->contents().end(), std::uint8_t{0});
        adapter.add_power_fault(fault);
        run(0x09130601);
    }
    void run(std::uint32_t command) {
        write(0x1C800, command);
        read(0x1C800);
    }
    void program(std::uint32_t data) {
        write(0x1C804, 0);
        write(0x1C808, data);
        run(0x09130243); // accesses 5 and 6
    }
    void erase() {
        write(0x1C804, 0x1000);
        run(0x09132003); // accesses 4 and 5
    }
    std::uint32_t word(std::size_t at = 0) const {
        const auto bytes = chip->contents().subspan(at, 4);
        return static_cast<std::uint32_t>(bytes[0] | bytes[1] << 8 | bytes[2] << 16) |
               std::uint32_t{bytes[3]} << 24;
    }

    SpiChip* chip;
};

TEST(Power, LeavesAnInterruptedProgramHalfDoneAndAnEndedOneWhole) {
    constexpr std::uint32_t kData = 0x00FF0F00;
    for (const std::uint64_t nth : {5U, 6U}) {
        Victim v({.nth = nth});
        v.program(kData);
        EXPECT_EQ(v.word() & kData, kData) << "only bits that were being cleared can be";
        EXPECT_NE(v.word(), kData);
        EXPECT_NE(v.word(), 0xFFFFFFFFU);
        EXPECT_EQ(v.word(4), 0xFFFFFFFFU);
    }
    Victim ended({.nth = 7});
    ended.program(kData);
    ended.clock.advance_us(100);
    EXPECT_EQ(ended.read(0x1C800), 0xFFFFFFFFU);
    EXPECT_EQ(ended.word(), kData);
}

TEST(Power, LeavesAnInterruptedEraseUndefinedAndGoesAtATimeToo) {
    Victim v({.at_us = 999});
    v.erase();
    v.clock.advance_us(2000); // over long ago for who looks now, but not when power went
    EXPECT_EQ(v.read(0x1C800), 0xFFFFFFFFU);
    EXPECT_NE(v.word(0x1000), 0U);
    EXPECT_NE(v.word(0x1000), 0xFFFFFFFFU);
    EXPECT_EQ(v.word(0x0FFC), 0U);
    EXPECT_EQ(v.word(0x2000), 0U);
}

TEST(Power, TakesTheAdapterFromTheBusAndGivesItBackFresh) {
    Victim v({.nth = 3, .off_us = 500});
    v.write(0x1C804, 0x1000);
    v.write(0x1C808, 0); // lost with the next ones, which would be misuse
    v.write(0x1C7FC, 1);
    EXPECT_EQ(v.read(0x1C804), 0xFFFFFFFFU);
    EXPECT_EQ(v.machine.config_read({0, 2, 0}, 0, 2), 0xFFFFU);
    v.adapter.config_write(4, 0, 2);
    v.clock.advance_us(500);
    EXPECT_EQ(v.machine.config_read({0, 2, 0}, 0, 2), 0x1E5DU);
    EXPECT_EQ(v.read(0x1C804), 0U);
    EXPECT_EQ(v.chip->status(), 0) << "the latch is gone";
    EXPECT_EQ(v.complaint(), "0 complaints");
}

TEST(Power, ResetsVolatileProtectionAndKeepsTheRest) {
    const auto after_power_cycle = [](std::string_view part) {
        VirtualClock clock;
        Machine machine(clock);
        Adapter& adapter = machine.add(*find_adapter_model(0x1E5D, 0xC705), {0, 2, 0}, 0);
        SpiChip& chip = machine.add_spi_chip(adapter, *find_spi_part(part), kNeverBusy);
        chip.set_status(0x8F);
        adapter.power_up();
        return chip.status();
    };
    EXPECT_EQ(after_power_cycle("W25X40"), 0x8C) << "nonvolatile";
    EXPECT_EQ(after_power_cycle("SST25VF040B"), 0x3C);
    EXPECT_EQ(after_power_cycle("AT25DF041A"), 0x0C) << "every sector is protected";
}

} // namespace
