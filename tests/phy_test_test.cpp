#include "qfu/phy_test.h"

#include "lab.h"

#include <fstream>
#include <gtest/gtest.h>

namespace {

/// One adapter with PHY test registers, and with a chip.
struct Phy : lab::Bench {
    explicit Phy(std::uint16_t device = 0xC70A, std::uint8_t revision = 0x11)
        : Bench(device, "W25X40", 0, revision) {}
    std::string run(const std::string& arguments, std::string_view keys = "") {
        lab.log();
        return lab.run("-phytest -p " + arguments, keys).console;
    }
    std::size_t logged(std::string_view part) {
        const std::string log = lab.log();
        std::size_t count = 0;
        for (std::size_t at = 0; (at = log.find(part, at)) != log.npos; ++at) {
            ++count;
        }
        return count;
    }
};

TEST(PhyPatterns, AreWhatTheirWordsSay) {
    // Word, what is printed, and what the port then sends.
    std::ifstream patterns(QFU_SOURCE_DIR "/tests/phy_patterns.txt");
    Phy p;
    std::size_t count = 0;
    for (std::string word, text, sent; std::getline(patterns, word, '|');) {
        std::getline(std::getline(patterns, text, '|'), sent);
        const std::string line = "PHY test " + text + " on Port 0 at Link Rate 1.5 Gb/s\r\n";
        EXPECT_TRUE(p.run("0 -r 0 -n " + word).ends_with("doPhyTest()!!\r\n" + line)) << word;
        count += p.logged("start: " + sent + "\n");
    }
    EXPECT_EQ(count, 21U);
    EXPECT_EQ(doPhyTestPort(p.discover(), {.pattern = 21}), 0) << "no word has this code";
    EXPECT_EQ(p.logged("start: nothing"), 1U);
}

TEST(PhyRates, ArePreparedAndWrittenAsGenerationAndBoardWant) {
    // The block complains about a rate word or a preparation that does not belong to it.
    for (const std::uint16_t device :
         std::initializer_list<std::uint16_t>{0xC70A, 0xC70F, 0xC717}) {
        for (const std::uint32_t ports : {0x03U, 0xFFU, 0x1FFU}) {
            Phy p(device, 0x10);
            p.model.phy()->set_ports_implemented(ports);
            p.run("ALL");
            EXPECT_EQ(p.logged("preparation"), device != 0xC717 && ports == 0xFF ? 12U : 0U);
        }
    }
}

TEST(PhyMonitor, CountsItsLooksWhileTheClockCannotBeRead) {
    // 11 ms each: 181 in 2 seconds, 273 in 3.
    for (const std::uint64_t first : {1U, 2U, 50U}) {
        Phy p;
        p.lab.faults().clock.fail(first, 0);
        EXPECT_TRUE(p.run("0 -r 0 -lback -t 3").ends_with("at Link Rate 1.5Gb/s.\r\n"));
        EXPECT_EQ(p.logged("95 < "), 273U) << "unreadable from call " << first;
        Phy later;
        later.lab.faults().clock.fail(first, 20);
        later.run("0 -r 0 -lback -t 3");
        const std::size_t looks = later.logged("95 < ");
        EXPECT_TRUE(looks > 181 && looks < 273 + 30) << "it can be read again: " << looks;
    }
}

TEST(PhyMonitor, EndsThoughKeysCannotBeWaitedFor) {
    for (const auto call :
         {&emulator::FirmwareFaults::create_event, &emulator::FirmwareFaults::set_timer,
          &emulator::FirmwareFaults::wait_for_event}) {
        Phy p;
        (p.lab.faults().*call).fail(1, 0);
        EXPECT_TRUE(p.run("0 -r 0 -lback -t 1").ends_with("at Link Rate 1.5Gb/s.\r\n"));
        p.run("0 -r 0 -lback", "k");
        EXPECT_EQ(p.logged("95 < "), 1U);
    }
}

TEST(PhyMonitor, TakesAReadThatFailsForAFault) {
    // Two reads find the chip. Then three of AHCI, status, two of errors, the latch, two of the
    // counter. What a failed read gives has the pass bit clear and is no count of zero.
    for (std::uint64_t nth = 1; nth <= 9; ++nth) {
        Phy p;
        if (nth == 6) {
            p.model.phy()->add_fault({emulator::PhyFaultKind::kErrors, 0, 1, 1, 0x20000});
        }
        p.lab.faults().memory_read.fail(2 + nth);
        const std::string text = p.run("0 -r 0 -lback", "k");
        EXPECT_EQ(text.ends_with("Failed).\r\n"), nth >= 4 && nth <= 6) << text;
        EXPECT_EQ(text.find("not pass") != std::string::npos, nth == 4);
        EXPECT_EQ(text.find("not lock"), std::string::npos);
        EXPECT_EQ(text.find("error counter 0x5A5A0000\r\n") != std::string::npos, nth == 5);
        EXPECT_EQ(text.find("error counter 0x5A5A5A5A\r\n") != std::string::npos, nth == 6);
        p.lab.take_misuses(); // what comes of a host control register that cannot be read
    }
}

TEST(Seconds, FollowTheCalendar) {
    lab::Lab lab;
    lab.attach();
    constexpr std::uint32_t kStartOf2026 = 1767225600;
    constexpr std::uint32_t kStep = 86400 + 4001; // every day at another hour, minute and second
    for (std::uint32_t step = 0; step < 5 * 366; ++step) {
        ASSERT_EQ(qfu_time_seconds(), kStartOf2026 + step * kStep) << step;
        lab.clock().advance_us(std::uint64_t{kStep} * 1'000'000);
    }
}

} // namespace
