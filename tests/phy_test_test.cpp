#include "qfu/phy_test.h"

#include "lab.h"
#include "qfu/discover.h"

#include <fstream>
#include <gtest/gtest.h>

namespace {

/// One adapter with PHY test registers, and with a chip.
struct Phy : lab::Discovered {
    explicit Phy(std::uint16_t device = 0xC70A, std::uint8_t revision = 0x11)
        : adapter(lab.adapter_at({0, 2, 0}, device, 0x1E5D, revision)) {
        lab.chip(adapter, "W25X40", emulator::kNeverBusy);
    }
    std::string run(const std::string& arguments, std::string_view keys = "") {
        lab.cycles();
        return lab.run("-phytest " + arguments, keys).text();
    }
    std::size_t logged(std::string_view part) {
        const std::string log = lab.cycles();
        std::size_t count = 0;
        for (std::size_t at = 0; (at = log.find(part, at)) != log.npos; ++at) {
            ++count;
        }
        return count;
    }
    emulator::Adapter& adapter;
};

TEST(PhyPatterns, AreWhatTheirWordsSay) {
    // Word, what is printed, and what the port then sends.
    std::ifstream patterns(QFU_SOURCE_DIR "/tests/phy_patterns.txt");
    const std::string where = " on Port 0 at Link Rate 1.5 Gb/s\n";
    Phy p;
    std::size_t count = 0;
    for (std::string word, text, sent; std::getline(patterns, word, '|');) {
        std::getline(std::getline(patterns, text, '|'), sent);
        EXPECT_EQ(p.run("-p 0 -r 0 -n " + word), "doPhyTest()!!\nPHY test " + text + where);
        count += p.logged("start: " + sent + "\n");
    }
    EXPECT_EQ(count, 21U);
    EXPECT_EQ(doPhyTestPort(p.discover(), {.pattern = 21}), 0) << "no word has this code";
    EXPECT_EQ(p.logged("start: nothing"), 1U);
}

TEST(PhyRates, ArePreparedAndWrittenAsGenerationAndBoardWant) {
    // The block complains about a rate word or a preparation that does not belong to it.
    for (const int device : {0xC70A, 0xC70F, 0xC717}) {
        for (const std::uint32_t ports : {0x03U, 0xFFU, 0x1FFU}) {
            Phy p(static_cast<std::uint16_t>(device), 0x10);
            p.adapter.phy()->set_ports_implemented(ports);
            p.run("-p ALL");
            EXPECT_EQ(p.logged("preparation"), device != 0xC717 && ports == 0xFF ? 12U : 0U);
            p.run("-p 0 -r 3");
            EXPECT_EQ(p.logged("02 > 0070"), 2U);
            p.lab.take_misuses(); // no such rate, or one that wants to be prepared
        }
    }
}

TEST(PhyMonitor, CountsItsLooksWhileTheClockCannotBeRead) {
    constexpr std::size_t kLooksOf2Seconds = 181; // 11 ms each
    constexpr std::size_t kLooksOf3Seconds = 273;
    for (const std::uint64_t first : {1U, 2U, 50U}) {
        Phy p;
        p.lab.faults().clock.fail(first, 0);
        EXPECT_TRUE(p.run("-p 0 -r 0 -lback -t 3").ends_with("at Link Rate 1.5Gb/s.\n"));
        EXPECT_EQ(p.logged("95 < "), kLooksOf3Seconds) << "unreadable from call " << first;
        Phy later;
        later.lab.faults().clock.fail(first, 20);
        later.run("-p 0 -r 0 -lback -t 3");
        const std::size_t looks = later.logged("95 < ");
        EXPECT_GT(looks, kLooksOf2Seconds) << "it can be read again";
        EXPECT_LT(looks, kLooksOf3Seconds + 30);
    }
}

TEST(PhyMonitor, EndsThoughKeysCannotBeWaitedFor) {
    for (const auto call :
         {&emulator::FirmwareFaults::create_event, &emulator::FirmwareFaults::set_timer,
          &emulator::FirmwareFaults::wait_for_event}) {
        Phy p;
        (p.lab.faults().*call).fail(1, 0);
        EXPECT_TRUE(p.run("-p 0 -r 0 -lback -t 1").ends_with("at Link Rate 1.5Gb/s.\n"));
        p.run("-p 0 -r 0 -lback", "k");
        EXPECT_EQ(p.logged("95 < "), 1U);
    }
}

TEST(PhyMonitor, TakesAReadThatFailsForAFault) {
    // Two reads find the chip. Then three of AHCI, status, two of errors, the latch, two of the
    // counter. What a failed read gives has the pass bit clear and is no count of zero.
    for (std::uint64_t nth = 1; nth <= 9; ++nth) {
        Phy p;
        if (nth == 6) {
            p.adapter.phy()->add_fault({emulator::PhyFaultKind::kErrors, 0, 1, 1, 0x20000});
        }
        p.lab.faults().memory_read.fail(2 + nth);
        const std::string text = p.run("-p 0 -r 0 -lback", "k");
        EXPECT_EQ(text.ends_with("Failed).\n"), nth >= 4 && nth <= 6) << text;
        EXPECT_EQ(text.find("not pass") != std::string::npos, nth == 4);
        EXPECT_EQ(text.find("not lock"), std::string::npos);
        EXPECT_EQ(text.find("error counter 0x5A5A0000\n") != std::string::npos, nth == 5);
        EXPECT_EQ(text.find("error counter 0x5A5A5A5A\n") != std::string::npos, nth == 6);
        p.lab.take_misuses(); // what comes of a host control register that cannot be read
    }
}

TEST(PhyTest, ReturnsOneForAFailureAndElseTheLastResult) {
    Phy p(0xC709);
    p.adapter.phy()->add_fault({emulator::PhyFaultKind::kNoLock, 0, 1, 0, 0});
    QFU_ADAPTER& adapter = p.discover();
    p.lab.firmware().terminal().press("kk");
    p.context.flags = QFU_REQ_PHY_RATE | QFU_REQ_PHY_LOOPBACK;
    EXPECT_EQ(doPhyTest(adapter), 1) << "port 1 passes";
    p.context.flags = QFU_REQ_PHY_RATE;
    EXPECT_EQ(doPhyTest(adapter), 0);
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
