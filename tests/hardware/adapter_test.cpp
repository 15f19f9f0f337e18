#include "hardware/machine.h"

#include <gtest/gtest.h>

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

} // namespace
