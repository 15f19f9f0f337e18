// What a loss of power leaves of a change that it interrupts.
#include "hardware/machine.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using namespace emulator;

/// A board whose chip holds zeros but for an erased first page, with a write enabled.
struct Victim {
    explicit Victim(const PowerFault& fault) {
        Adapter& adapter = machine.add(*find_adapter_model(0x1E5D, 0xC705), {0, 2, 0}, 0);
        contents =
            machine.add_spi_chip(adapter, *find_spi_part("W25X40"), {100, 100, 100}).contents();
        std::ranges::fill(contents.subspan(256), std::uint8_t{0});
        adapter.add_power_fault(fault);
        machine.assign_bars();
        run(0x09130601);
    }
    std::uint32_t status() { return machine.memory_read(0xC001C800, 4); }
    void write(std::uint32_t reg, std::uint32_t value) {
        machine.memory_write(0xC001C800 + reg, value, 4);
    }
    void run(std::uint32_t command) {
        write(0, command);
        status();
    }
    void program(std::uint32_t data) {
        write(4, 0);
        write(8, data);
        run(0x09130243); // accesses 5 and 6, or 10 and 11 after an erase
    }
    void erase() {
        write(4, 0x1000);
        run(0x09132003);
    }
    std::uint32_t word(std::size_t at = 0) const {
        std::uint32_t word = 0;
        std::memcpy(&word, &contents[at], sizeof word);
        return word;
    }

    VirtualClock clock;
    Machine machine{clock};
    std::span<std::uint8_t> contents;
};

TEST(Power, LeavesAnInterruptedProgramHalfDoneAndAnEndedOneWhole) {
    constexpr std::uint32_t kData = 0x00FF0F00;
    for (const std::uint64_t nth : {10U, 11U}) {
        Victim v({.nth = nth});
        v.erase();
        v.clock.advance_us(1000);
        v.run(0x09130601);
        v.program(kData);
        EXPECT_EQ(v.word(0x1000), 0xFFFFFFFFU) << "the erase before it is over";
        EXPECT_EQ(v.word() & kData, kData) << "only bits that were being cleared can be";
        EXPECT_NE(v.word(), kData);
        EXPECT_NE(v.word(), 0xFFFFFFFFU);
        EXPECT_EQ(v.word(4), 0xFFFFFFFFU);
    }
    Victim ended({.nth = 7});
    ended.program(kData);
    ended.clock.advance_us(100);
    EXPECT_EQ(ended.status(), 0xFFFFFFFFU);
    EXPECT_EQ(ended.word(), kData);
}

TEST(Power, LeavesAnInterruptedEraseUndefinedAndGoesAtATimeToo) {
    Victim v({.at_us = 999});
    v.erase();
    v.clock.advance_us(2000); // over long ago for who looks now, but not when power went
    EXPECT_EQ(v.status(), 0xFFFFFFFFU);
    EXPECT_NE(v.word(0x1000), 0U);
    EXPECT_NE(v.word(0x1000), 0xFFFFFFFFU);
    EXPECT_EQ(v.word(0x0FFC), 0U);
    EXPECT_EQ(v.word(0x2000), 0U);
}

} // namespace
