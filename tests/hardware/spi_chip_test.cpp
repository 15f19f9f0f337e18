#include "hardware/spi_chip.h"

#include <gtest/gtest.h>

namespace {

using namespace emulator;
using Bytes = std::vector<std::uint8_t>;

/// A chip on a bench, without a controller.
struct Chip {
    explicit Chip(std::string_view part, BusyTimes times = kNeverBusy)
        : chip(*find_spi_part(part), "chip", clock, journal, times) {}

    void send(std::uint8_t opcode) { chip.transfer({opcode, false, 0, {}, {}}); }
    void send_at(std::uint8_t opcode, std::uint32_t address) {
        chip.transfer({opcode, true, address, {}, {}});
    }
    void program(std::uint32_t address, const Bytes& data) {
        Bytes miso(data.size());
        chip.transfer({0x02, true, address, data, miso});
    }
    Bytes receive(std::uint8_t opcode, std::size_t count) {
        const Bytes mosi(count);
        Bytes miso(count);
        chip.transfer({opcode, false, 0, mosi, miso});
        return miso;
    }
    Bytes receive_at(std::uint8_t opcode, std::uint32_t address, std::size_t count) {
        const Bytes mosi(count);
        Bytes miso(count);
        chip.transfer({opcode, true, address, mosi, miso});
        return miso;
    }
    void write_status(std::uint8_t value) {
        const Bytes mosi = {value};
        Bytes miso(1);
        chip.transfer({0x01, false, 0, mosi, miso});
    }
    std::uint8_t status() { return receive(0x05, 1)[0]; }

    /// One chip-select period as bytes on the wires.
    Bytes clock_bytes(const Bytes& sent, std::size_t count = 0) {
        Bytes received(count);
        chip.clock(sent, received);
        return received;
    }

    /// The one complaint so far.
    std::string complaint() {
        const auto misuses = journal.take_misuses();
        return misuses.size() == 1 ? misuses[0] : std::to_string(misuses.size()) + " complaints";
    }

    VirtualClock clock;
    Journal journal;
    SpiChip chip;
};

TEST(SpiChip, IdentifiesItselfOverAndOver) {
    Chip c("W25Q32");
    EXPECT_EQ(c.receive(0x9F, 4), (Bytes{0xEF, 0x40, 0x16, 0xEF}));
    EXPECT_EQ(Chip("AT25F2048").receive(0x15, 4), (Bytes{0x1F, 0x63, 0x1F, 0x63}));
}

TEST(SpiChip, ProgramsOnlyWithWriteEnableAndClearsTheLatch) {
    Chip c("W25X40");
    c.program(0, {0x00});
    EXPECT_EQ(c.complaint(), "chip: program without write enable");
    EXPECT_EQ(c.chip.contents()[0], 0xFF);
    c.send(0x06);
    EXPECT_EQ(c.status(), 0x02);
    c.program(0, {0x12});
    EXPECT_EQ(c.status(), 0x00);
    EXPECT_EQ(c.chip.contents()[0], 0x12);
    c.send(0x06);
    c.send(0x04);
    EXPECT_EQ(c.status(), 0x00);
}

TEST(SpiChip, ProgrammingClearsBitsAndWrapsInItsPage) {
    Chip c("W25X40");
    c.send(0x06);
    c.program(0x1FF, {0x0F, 0xAA});
    EXPECT_EQ(c.chip.contents()[0x1FF], 0x0F);
    EXPECT_EQ(c.chip.contents()[0x100], 0xAA);
    c.send(0x06);
    c.program(0x1FF, {0xF3});
    EXPECT_EQ(c.chip.contents()[0x1FF], 0x03);
    EXPECT_EQ(c.complaint(), "chip: program of F3 over 0F at 0001FF sets bits");
}

TEST(SpiChip, ErasesAlignedUnits) {
    Chip c("W25Q32");
    for (const auto& [opcode, unit] :
         {std::pair(0x20, 0x1000U), std::pair(0x52, 0x8000U), std::pair(0xD8, 0x10000U)}) {
        std::ranges::fill(c.chip.contents(), std::uint8_t{0});
        c.send(0x06);
        c.send_at(static_cast<std::uint8_t>(opcode), 0x12345);
        const std::uint32_t base = 0x12345 / unit * unit;
        EXPECT_EQ(c.chip.contents()[base], 0xFF);
        EXPECT_EQ(c.chip.contents()[base + unit - 1], 0xFF);
        EXPECT_EQ(c.chip.contents()[base - 1], 0);
        EXPECT_EQ(c.chip.contents()[base + unit], 0);
    }
}

TEST(SpiChip, TakesNothingButStatusReadsWhileBusy) {
    Chip c("W25X40", BusyTimes{});
    c.send(0x06);
    c.send_at(0x20, 0);
    EXPECT_EQ(c.status(), 0x03);
    c.send(0x06);
    EXPECT_EQ(c.complaint(), "chip: write enable while the chip is busy");
    EXPECT_EQ(c.receive_at(0x03, 0, 1), Bytes{0}) << "no answer";
    c.journal.take_misuses();
    c.clock.advance_us(100'000);
    EXPECT_EQ(c.status(), 0x00);
}

TEST(SpiChip, RefusesCommandsWithTooMuchOrTooLittleBehindThem) {
    Chip c("W25X40");
    c.send(0x02);
    EXPECT_EQ(c.complaint(), "chip: program without an address");
    c.receive(0x06, 1);
    EXPECT_EQ(c.complaint(), "chip: write enable with data behind it");
    c.send(0x99);
    EXPECT_EQ(c.complaint(), "chip: opcode 99 is none that the chip knows");
    c.receive_at(0x03, 0x80000, 1);
    EXPECT_EQ(c.complaint(), "chip: read at 080000, past the end of the chip");
}

TEST(SpiChip, BlockProtectionKeepsEverythingUntilTheStatusIsCleared) {
    Chip c("SST25VF040B");
    EXPECT_EQ(c.status(), 0x3C);
    c.chip.contents()[0] = 0;
    c.send(0x06);
    c.send_at(0x20, 0);
    EXPECT_EQ(c.complaint(), "chip: sector erase at 000000, which is protected");
    EXPECT_EQ(c.status(), 0x3C) << "the latch is gone, the protection is not";
    c.send(0x06);
    c.send(0xC7);
    c.journal.take_misuses();
    EXPECT_EQ(c.chip.contents()[0], 0);
    c.send(0x06);
    c.write_status(0);
    c.send(0x06);
    c.send(0x60);
    EXPECT_EQ(c.chip.contents()[0], 0xFF);
}

TEST(SpiChip, StatusEnableHoldsForTheNextCommandAlone) {
    Chip c("SST25VF080B");
    c.send(0x50);
    EXPECT_EQ(c.status(), 0x3C);
    c.write_status(0);
    EXPECT_EQ(c.complaint(), "chip: write status without write enable");
    c.send(0x50);
    c.program(0, {0});
    EXPECT_EQ(c.complaint(), "chip: program without write enable");
    c.send(0x50);
    c.write_status(0);
    c.write_status(0x1C);
    EXPECT_EQ(c.complaint(), "chip: write status without write enable");
    EXPECT_EQ(c.status(), 0);
}

TEST(SpiChip, ProgramsWordsOneBehindTheOther) {
    Chip c("SST25VF040B", BusyTimes{});
    const auto at = [&](std::uint32_t a) {
        c.clock.advance_us(BusyTimes{}.program_us);
        return Bytes(c.chip.contents().begin() + a, c.chip.contents().begin() + a + 4);
    };
    c.chip.set_status(0);
    c.clock_bytes({0xAD, 0, 0x10, 0, 1, 2});
    EXPECT_EQ(c.complaint(), "chip: program word without write enable");
    c.send(0x06);
    c.clock_bytes({0xAD, 0, 0x10, 0, 1, 2});
    EXPECT_EQ(c.clock_bytes({0x05}, 1), Bytes{0x43});
    EXPECT_EQ(at(0x1000), (Bytes{1, 2, 0xFF, 0xFF}));
    EXPECT_EQ(c.status(), 0x42) << "the latch stays set from word to word";
    EXPECT_EQ(c.clock_bytes({0x03, 0, 0x10, 0}, 1), Bytes{0});
    EXPECT_EQ(c.complaint(), "chip: read between words that are programmed");
    c.clock_bytes({0xAD, 3, 4});
    EXPECT_EQ(at(0x1000), (Bytes{1, 2, 3, 4}));
    c.send(0x04);
    EXPECT_EQ(c.status(), 0);
    c.send(0x06);
    c.clock_bytes({0xAD, 0x07, 0xFF, 0xFF, 5, 6});
    EXPECT_EQ(c.complaint(), "chip: program word at 07FFFF, an odd address");
    EXPECT_EQ(at(0x7FFFC), (Bytes{0xFF, 0xFF, 5, 6}));
    EXPECT_EQ(c.status(), 0) << "the end of the chip ends it";
    c.chip.set_status(0x1E);
    c.clock_bytes({0xAD, 0, 0, 0, 7, 8});
    EXPECT_EQ(c.complaint(), "chip: program word at 000000, which is protected");
    c.chip.set_status(0x02);
    c.program(0, {7, 8});
    EXPECT_EQ(c.complaint(), "chip: program of 2 bytes; the chip takes one");
    EXPECT_EQ(at(0), (Bytes{7, 0xFF, 0xFF, 0xFF}));
}

TEST(SpiChip, SectorProtectionIsLiftedSectorBySectorOrAllAtOnce) {
    Chip c("AT25DF041A");
    EXPECT_EQ(c.receive_at(0x3C, 0x79FFF, 1), Bytes{0xFF});
    c.send_at(0x39, 0x78000);
    EXPECT_EQ(c.complaint(), "chip: unprotect sector without write enable");
    EXPECT_EQ(c.status(), 0x0C) << "all sectors";
    c.send(0x06);
    c.send_at(0x39, 0x78000);
    EXPECT_EQ(c.status(), 0x04) << "some";
    EXPECT_EQ(c.receive_at(0x3C, 0x79FFF, 1), Bytes{0});
    EXPECT_EQ(c.receive_at(0x3C, 0x7A000, 1), Bytes{0xFF});
    c.send(0x06);
    c.send_at(0x52, 0x78000);
    EXPECT_EQ(c.complaint(), "chip: block erase at 078000, which is protected") << "three sectors";
    c.send(0x06);
    c.write_status(0);
    EXPECT_EQ(c.receive_at(0x3C, 0x7C000, 1), Bytes{0});
    EXPECT_EQ(c.status(), 0);
}

TEST(SpiChip, FaultsStrikeWhatTheyAreAimedAt) {
    Chip c("W25X40");
    Fault stuck;
    stuck.kind = FaultKind::kStuckBits;
    stuck.on = Operation::kProgram;
    stuck.address = 5;
    stuck.mask = 0x81;
    stuck.nth = 2;
    stuck.times = 1;
    c.chip.faults().add(stuck);
    for (const int stored : {0x00, 0x81, 0x00}) {
        c.chip.contents()[4] = c.chip.contents()[5] = 0xFF;
        c.send(0x06);
        c.program(4, {0, 0});
        EXPECT_EQ(c.chip.contents()[5], stored);
    }
    Fault never_ready;
    never_ready.kind = FaultKind::kNeverReady;
    c.chip.faults().add(never_ready);
    c.send(0x06);
    EXPECT_EQ(c.status() & 1, 1);
}

TEST(SpiParts, EveryNameIsTakenOnce) {
    for (const SpiPart& part : spi_parts()) {
        EXPECT_EQ(find_spi_part(part.name), &part);
    }
    EXPECT_EQ(find_spi_part("W25Q3"), nullptr);
}

} // namespace
