#include "hardware/phy_block.h"

#include "hardware/machine.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace emulator;

/// A block whose first port is brought up step by step.
struct PhyBoard {
    explicit PhyBoard(PhyModel model = {3, 4, 0x11}) : block(model, "0", clock, journal) {
        journal.listen_to_cycles([this](std::string_view line) { last = line; });
        if (model.generation == 2) {
            index = 0x178;
        }
        block.write(0x04, 0x80000002);
    }
    void write(std::uint32_t number, std::uint32_t value) {
        block.write(index, number);
        block.write(index + 4, value);
    }
    std::uint32_t read(std::uint32_t number) {
        block.write(index, number);
        return block.read(index + 4);
    }
    void reset(std::uint32_t port = 0) {
        write(port | 0x95, 0x4000);
        write(port | 0x95, 0);
    }
    void load_rate(std::uint32_t word, std::uint32_t port = 0) {
        write(port | 0x02, word);
        write(port | 0x02, word | 1);
        clock.advance_us(1000);
        write(port | 0x02, word);
        clock.advance_us(1000);
    }
    void load_pattern(std::uint32_t selector, std::uint32_t port = 0) {
        for (std::uint32_t n = 0x96; n < 0x9B; ++n) {
            write(port | n, 0);
        }
        write(port | 0x9B, selector);
    }
    void start(std::uint32_t port = 0) {
        write(port | 0x95, 0x80E0);
        clock.advance_us(1000);
    }
    void bring_up(std::uint32_t port = 0) {
        reset(port);
        load_rate(0x60, port);
        load_pattern(0x80, port);
        start(port);
    }
    std::string complaint() {
        const auto misuses = journal.take_misuses();
        return misuses.size() == 1 ? misuses[0] : std::to_string(misuses.size()) + " complaints";
    }

    VirtualClock clock;
    Journal journal;
    PhyBlock block;
    std::uint32_t index = 0xB0;
    std::string last; ///< line of the cycle log
};

TEST(PhyBlock, ShowsALockedPatternThatWasStartedInOrder) {
    PhyBoard b;
    b.bring_up(0x200);
    EXPECT_EQ(b.last, "0.phy2  test control        95 > 80E0  start: PRBS7, x^7 + x^6 + 1");
    EXPECT_EQ(b.read(0x295), 0xB0E0U);
    EXPECT_EQ(b.last, "0.phy2  test control        95 < B0E0  pass, lock");
    EXPECT_EQ(b.read(0x29F) | b.read(0x2A0), 0U);
    b.read(0x29C);
    EXPECT_NE(b.read(0x29D) << 16 | b.read(0x29E), 0U);
    EXPECT_EQ(b.complaint(), "0 complaints");
    b.bring_up(0x200);
    EXPECT_EQ(b.complaint(), "0 complaints") << "a running port may be reset";
}

/// One word of the script: "02<60" writes, "9D?" reads, "A04<..." is register 04 of the AHCI block,
/// a name alone is a step.
void step(PhyBoard& b, const std::string& word) {
    const std::size_t at = word.find_first_of("<?");
    const auto number = [&](std::size_t from) {
        return static_cast<std::uint32_t>(std::stoul(word.substr(from), nullptr, 16));
    };
    if (at == word.npos) {
        word == "reset"     ? b.reset()
        : word == "rate"    ? b.load_rate(0x60)
        : word == "pattern" ? b.load_pattern(0x85)
        : word == "start"   ? b.start()
        : word == "run"     ? b.bring_up()
                            : b.clock.advance_us(1000);
    } else if (word[at] == '?') {
        b.read(number(0));
    } else if (at == 3 && word[0] == 'A') {
        b.block.write(number(1), number(at + 1));
    } else {
        b.write(number(0), number(at + 1));
    }
}

TEST(PhyBlock, ComplainsAboutWhatItWouldNotTake) {
    std::ifstream script(QFU_SOURCE_DIR "/tests/hardware/phy_misuse.txt");
    auto b = std::make_unique<PhyBoard>();
    int count = 0;
    for (std::string line; std::getline(script, line);) {
        const std::size_t arrow = line.find(" => ");
        if (line.starts_with("= ")) {
            b = std::make_unique<PhyBoard>(
                PhyModel{3, static_cast<std::uint8_t>(line[2] - '0'), 0x11});
        } else if (arrow != line.npos) {
            std::istringstream words(line.substr(0, arrow));
            for (std::string word; words >> word;) {
                step(*b, word);
            }
            const auto misuses = b->journal.take_misuses();
            EXPECT_EQ(misuses.size() == 1 ? misuses[0] : misuses.at(0) + " ...",
                      line.substr(arrow + 4))
                << line;
            ++count;
        }
    }
    EXPECT_EQ(count, 23);
}

TEST(PhyBlock, HasAPairForEachPortInGeneration2) {
    PhyBoard b({2, 2, 0x11});
    EXPECT_FALSE(b.block.contains(0xB0));
    b.bring_up();
    b.index = 0x1F8;
    EXPECT_EQ(b.read(0x95), 0U) << "port 1 does not run";
    b.bring_up();
    EXPECT_EQ(b.last, "0.phy1  test control        95 > 80E0  start: PRBS7, x^7 + x^6 + 1");
    EXPECT_EQ(b.complaint(), "0 complaints");
    b.read(0x195);
    EXPECT_EQ(b.complaint(), "0: PHY test register 195 is none that is there");
}

TEST(PhyBlock, WantsThePreparationBefore6GbWhereEightPortsAreReported) {
    const auto prepare = [](PhyBoard& b, std::uint32_t port) {
        b.write(port | 0xA2, 0x46);
        b.write(port | 0xED, 0x2400);
        b.write(port | 0xDB, 0);
        b.write(port | 0xA9, 0x5556);
        b.write(port | 0xD6, 0);
        b.write(port | 0xD6, 0x200);
    };
    PhyBoard b;
    b.reset();
    b.load_rate(0x70);
    EXPECT_EQ(b.complaint(), "0 complaints") << "four ports are reported";
    b.block.set_ports_implemented(0xFF);
    b.reset();
    b.load_rate(0x70);
    EXPECT_EQ(b.complaint(), "0.phy0 rate (02): 6 Gb/s loaded without its preparation");
    prepare(b, 0x100);
    b.reset(0x100);
    b.load_rate(0x70, 0x100);
    EXPECT_EQ(b.complaint(), "0 complaints");
    b.write(0xED, 0x2400);
    EXPECT_EQ(b.complaint(), "0.phy0 6 Gb/s preparation (ED): written out of step with 2400");
    b.write(0x2A2, 0x46);
    EXPECT_EQ(b.complaint(),
              "0.phy2 6 Gb/s preparation (A2): written on a port that wants no preparation");

    PhyBoard second({2, 2, 0x11});
    second.block.set_ports_implemented(0xFF);
    second.index = 0x1F8;
    prepare(second, 0x100);
    EXPECT_EQ(second.complaint(), "0 complaints");
    prepare(second, 0);
    EXPECT_EQ(second.complaint(), "6 complaints") << "port 1's registers have its number";
}

TEST(PhyBlock, FaultsStrikeTheReadsThatTheyAreAimedAt) {
    PhyBoard b;
    b.block.add_fault({PhyFaultKind::kNoPass, 0, 2, 1, 0});
    b.block.add_fault({PhyFaultKind::kNoLock, 1, 1, 0, 0});
    b.block.add_fault({PhyFaultKind::kErrors, 0, 3, 2, 0x12345678});
    b.block.add_fault({PhyFaultKind::kCount, 0, 2, 0, 0});
    b.bring_up();
    b.bring_up(0x100);
    const auto errors = [&] {
        const std::uint32_t high = b.read(0x9F) << 16;
        return high | b.read(0xA0);
    };
    const auto count = [&] {
        b.read(0x9C);
        const std::uint32_t high = b.read(0x9D) << 16;
        return high | b.read(0x9E);
    };
    for (int n = 1; n <= 5; ++n) {
        EXPECT_EQ(b.read(0x95), n == 2 ? 0x90E0U : 0xB0E0U);
        EXPECT_EQ(b.read(0x195), 0xA0E0U);
        EXPECT_EQ(errors(), n == 3 || n == 4 ? 0x12345678U : 0U);
        EXPECT_EQ(count() == 0, n >= 2);
    }
    EXPECT_EQ(b.complaint(), "0 complaints");
}

TEST(Adapter, HasAPhyBlockOnIndexedModelsAlone) {
    VirtualClock clock;
    Machine machine(clock);
    machine.add(*find_adapter_model(0x1E5D, 0xC70A), {0, 2, 0}, 0x10);
    machine.add(*find_adapter_model(0x1E5D, 0xC705), {0, 3, 0}, 0x10);
    machine.assign_bars();
    EXPECT_EQ(machine.memory_read(0xC000000C, 4), 0xFU);
    EXPECT_EQ(machine.adapter(1).phy(), nullptr);
    EXPECT_EQ(machine.journal().misuse_count(), 0U);
}

} // namespace
