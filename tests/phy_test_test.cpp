#include "phy_test.h"

#include "discover.h"
#include "lab.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <gtest/gtest.h>

namespace {

using emulator::PhyFaultKind;
using lab::Lab;

const std::string kNoPattern =
    "\nPattern argument, -n, is not found. Set pattern to default, PRBS7 \n";
const std::string kHandOff = "doPhyTest()!!\n";

/// A port that is brought up without a monitor.
QFU_PHY_RUN silent_run(std::uint8_t port, std::uint8_t rate, std::uint8_t pattern) {
    return {port, rate, pattern, 0, false, false};
}

/// A port that is watched until a key comes.
QFU_PHY_RUN watched_run(std::uint8_t port, std::uint8_t rate, std::uint8_t pattern) {
    return {port, rate, pattern, 0, true, false};
}

/// One adapter with a chip, for runs of the program.
struct Bench {
    explicit Bench(std::uint16_t device = 0xC70A, std::uint8_t revision = 0x11)
        : adapter(lab.adapter_at({0, 2, 0}, device, 0x1E5D, revision)) {
        lab.chip(adapter, "W25X40", emulator::kNeverBusy);
    }
    void fault(PhyFaultKind kind, std::uint8_t port, std::uint64_t nth = 1, std::uint64_t times = 0,
               std::uint32_t value = 0) {
        adapter.phy()->add_fault({kind, port, nth, times, value});
    }
    /// What the test prints, without the lines that come before every run.
    std::string run(const std::string& arguments, std::string_view keys = "") {
        lab.cycles();
        std::string text = lab.run("-phytest " + arguments, keys).text();
        EXPECT_TRUE(text.starts_with(kHandOff)) << text;
        text.erase(0, kHandOff.size());
        if (text.starts_with(kNoPattern)) {
            text.erase(0, kNoPattern.size());
        }
        return text;
    }
    std::size_t logged(std::string_view line) {
        const std::string log = lab.cycles();
        std::size_t count = 0;
        for (std::size_t at = 0; (at = log.find(line, at)) != log.npos; ++at) {
            ++count;
        }
        return count;
    }

    Lab lab;
    emulator::Adapter& adapter;
};

/// The same adapter as discovery leaves it, for calls of single routines.
struct Engine {
    explicit Engine(std::uint16_t device, std::uint8_t revision = 0x11) : bench(device, revision) {
        bench.lab.attach();
        qfu_chiplist_load(context);
        qfu_discover(qfu_supported_adapters(), context);
        bench.lab.printed();
        bench.lab.registers();
    }
    ~Engine() { bench.lab.attach(); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    std::uint8_t run(const QFU_PHY_RUN& run) { return doPhyTestPort(context.adapters[0], run); }

    /// Register accesses as "offset=written" and "offset?read".
    std::vector<std::string> accesses() {
        constexpr std::string_view kBar = "BAR5+";
        std::vector<std::string> result;
        for (const std::string& word : lab::words(bench.lab.registers())) {
            const std::size_t at = word.find(kBar);
            if (at != word.npos) {
                result.push_back(number(word.substr(at + kBar.size())));
            } else if (word == "<" || word == ">") {
                result.back() += word == "<" ? "=" : "?";
            } else if (!result.empty() && std::isalnum(result.back().back()) == 0) {
                result.back() += number(word);
            }
        }
        return result;
    }

    Bench bench;
    QFU_CONTEXT context{};

  private:
    static std::string number(const std::string& digits) {
        const std::size_t first = digits.find_first_not_of('0');
        return first == digits.npos ? "0" : digits.substr(first);
    }
};

TEST(PhyEngine, DrivesASharedPairInItsFixedOrder) {
    Engine e(0xC70A);
    e.bench.lab.firmware().terminal().press("k");
    EXPECT_EQ(e.run(watched_run(2, 1, 8)), 0);
    EXPECT_EQ(e.accesses(), lab::words(lab::expected("phy-shared-pair")));
    EXPECT_EQ(e.bench.lab.printed(), "PHY test Lone-Bit Pattern on Port 2 at Link Rate 3 Gb/s\r\n");
}

TEST(PhyEngine, DrivesThePairOfTheSecondPortWithThePreparationFor6Gb) {
    Engine e(0xC70F);
    e.bench.adapter.phy()->set_ports_implemented(0xFF);
    EXPECT_EQ(e.run(silent_run(1, 2, 20)), 0);
    EXPECT_EQ(e.accesses(), lab::words(lab::expected("phy-second-pair")));
    e.run(silent_run(0, 0, 9));
    EXPECT_EQ(e.accesses()[4], "178=95");
}

TEST(PhyEngine, PreparesNoOtherPortRateOrGeneration) {
    // The block complains about a preparation that is missing as about one that it does not want.
    for (const int device : {0xC70A, 0xC70F, 0xC717}) {
        for (const std::uint32_t ports : {0x03U, 0xFFU, 0x1FFU}) {
            Bench b(static_cast<std::uint16_t>(device));
            b.adapter.phy()->set_ports_implemented(ports);
            b.run("-p ALL");
            const std::size_t prepared = b.logged("preparation");
            EXPECT_EQ(prepared, device != 0xC717 && ports == 0xFF ? 12U : 0U);
        }
    }
}

TEST(PhyEngine, ReachesPortsAbove3AsPort3) {
    Engine e(0xC70A);
    e.run(silent_run(5, 0, 9));
    EXPECT_EQ(e.accesses()[4], "B0=395");
    EXPECT_EQ(e.bench.lab.printed(), "PHY test PRBS7 on Port 5 at Link Rate 1.5 Gb/s\r\n");
}

TEST(PhyEngine, HasRateWordsOfItsOwnForRevision10OfGeneration3) {
    struct Case {
        std::uint16_t device;
        std::uint8_t revision;
        std::vector<std::string> words; ///< at the rates 0, 1, 2 and none of them
    };
    const Case cases[] = {
        {0xC70A, 0x10, {"10", "20", "40", "70"}},
        {0xC70A, 0x11, {"50", "60", "70", "70"}},
        {0xC717, 0x10, {"50", "60", "70", "70"}},
    };
    for (const Case& c : cases) {
        Engine e(c.device, c.revision);
        for (std::size_t rate = 0; rate < c.words.size(); ++rate) {
            e.run(silent_run(0, static_cast<std::uint8_t>(rate), 9));
            const auto all = e.accesses();
            const std::vector<std::string> written = {all[9], all[11], all[13]};
            std::string loading = c.words[rate];
            loading.back() = '1';
            EXPECT_EQ(written, (std::vector<std::string>{"B4=" + c.words[rate], "B4=" + loading,
                                                         "B4=" + c.words[rate]}));
        }
        // Revision 10 of generation 3 has no rate with the word 70.
        EXPECT_EQ(e.bench.lab.take_misuses().empty(), c.words[2] == "70");
    }
}

TEST(PhyEngine, SendsNothingForAnUnknownPatternCode) {
    Engine e(0xC70A);
    EXPECT_EQ(e.run(silent_run(0, 0, 21)), 0);
    const auto all = e.accesses();
    EXPECT_EQ(all[13], "B4=50");
    EXPECT_EQ(all[14], "B0=95");
    EXPECT_EQ(all[15], "B4=8000");
    EXPECT_EQ(all.size(), 16U);
    EXPECT_EQ(e.bench.lab.printed(), "PHY test  on Port 0 at Link Rate 1.5 Gb/s\r\n");
}

TEST(PhyPatterns, AreWhatTheirWordsSay) {
    std::ifstream patterns(QFU_SOURCE_DIR "/tests/phy_patterns.txt");
    Bench b;
    int count = 0;
    for (std::string line; std::getline(patterns, line);) {
        const std::size_t colon = line.find(": ");
        const std::size_t arrow = line.find(" => ");
        if (colon < arrow && arrow != line.npos) {
            ++count;
            EXPECT_EQ(b.run("-p 0 -r 0 -n " + line.substr(0, colon)),
                      "PHY test " + line.substr(colon + 2, arrow - colon - 2) +
                          " on Port 0 at Link Rate 1.5 Gb/s\n");
            EXPECT_EQ(b.logged("start: " + line.substr(arrow + 4) + "\n"), 1U) << line;
        }
    }
    EXPECT_EQ(count, 21);
}

TEST(PhyMonitor, PrintsWhatIsWrongInEveryCycle) {
    Bench b;
    b.fault(PhyFaultKind::kNoPass, 0, 1, 2);
    b.fault(PhyFaultKind::kNoLock, 0, 1, 1);
    b.fault(PhyFaultKind::kErrors, 0, 1, 1, 0x1234ABCD);
    b.fault(PhyFaultKind::kCount, 0, 1, 1);
    b.lab.faults().read_key.fail(1, 3); // the key comes in the fourth cycle
    EXPECT_EQ(b.run("-p 0 -r 0 -lback", "k"), lab::expected("phy-errors"))
        << "a port that failed once has failed";
    EXPECT_EQ(b.logged("95 < "), 4U);
}

TEST(PhyMonitor, WatchesUntilTheFirstErrorWhenItStopsOnErrors) {
    Bench b;
    b.fault(PhyFaultKind::kErrors, 0, 3, 1, 7);
    EXPECT_TRUE(b.run("-p 0 -r 0 -lback -erctn").ends_with("(error 1: Failed).\n"));
    EXPECT_EQ(b.logged("95 < "), 3U);
}

TEST(PhyMonitor, TakesEitherHalfOfTheCounterForACount) {
    for (const std::uint32_t count : {0x10000U, 0x1U}) {
        Bench b;
        b.fault(PhyFaultKind::kCount, 0, 1, 0, count);
        EXPECT_TRUE(b.run("-p 0 -r 0 -lback", "k").ends_with("at Link Rate 1.5Gb/s.\n"));
    }
}

TEST(PhyMonitor, EndsWithItsDurationHoweverThePortDoes) {
    for (const auto& [duration, good] :
         {std::pair(5, true), std::pair(5, false), std::pair(257, true)}) {
        Bench b;
        if (!good) {
            b.fault(PhyFaultKind::kNoLock, 1);
        }
        const std::uint64_t start = b.lab.clock().now_ns();
        const std::string text = b.run("-p 1 -r 0 -lback -t " + std::to_string(duration));
        const double seconds = static_cast<double>(b.lab.clock().now_ns() - start) / 1e9;
        EXPECT_GT(seconds, duration - 1.0);
        EXPECT_LT(seconds, duration + 0.1);
        EXPECT_EQ(text.find("successfully") != std::string::npos, good);
        EXPECT_GT(b.logged("95 < "), 360U);
    }
}

TEST(PhyMonitor, EndsWithOneKeyARun) {
    Bench b;
    const std::string text = b.run("-p 3 -lback -t 60", "abc");
    EXPECT_EQ(text, lab::expected("phy-key-a-run"));
    EXPECT_EQ(b.lab.firmware().terminal().keys_left(), 0U);
    EXPECT_EQ(b.logged("95 < "), 3U);
}

TEST(PhyMonitor, RunsWithoutADurationUntilAKeyComes) {
    Bench b;
    b.lab.expect_starvation(); // after a thousand cycles the emulator lends a hand
    b.run("-p 0 -r 0 -lback");
    EXPECT_TRUE(b.lab.firmware().terminal().starved());
    EXPECT_EQ(b.logged("95 < "), 1000U);
    EXPECT_EQ(b.lab.faults().clock.calls(), 0U);
}

TEST(PhyMonitor, CountsCyclesWhileTheClockCannotBeRead) {
    constexpr std::size_t kCyclesOf3Seconds = 273; // of 11 ms
    for (const std::uint64_t from : {1U, 2U, 100U}) {
        Bench b;
        b.lab.faults().clock.fail(from, 0);
        EXPECT_TRUE(b.run("-p 0 -r 0 -lback -t 3").ends_with("Link Rate 1.5Gb/s.\n"));
        EXPECT_EQ(b.logged("95 < "), kCyclesOf3Seconds) << "unreadable from call " << from;
    }
    Bench b;
    b.lab.faults().clock.fail(1, 0);
    b.run("-p 0 -r 0 -lback -t 3", "k");
    EXPECT_EQ(b.logged("95 < "), 1U) << "a key ends it as always";
    EXPECT_EQ(b.lab.faults().clock.calls(), 2U) << "the clock is looked at before the keyboard";
}

TEST(PhyMonitor, GoesByAClockThatCanBeReadAgain) {
    for (const std::uint64_t first : {1U, 2U, 50U}) {
        Bench b;
        b.lab.faults().clock.fail(first, 20);
        const std::uint64_t start = b.lab.clock().now_ns();
        b.run("-p 0 -r 0 -lback -t 3");
        const double seconds = static_cast<double>(b.lab.clock().now_ns() - start) / 1e9;
        EXPECT_GT(seconds, 2.0);
        EXPECT_LT(seconds, 3.4);
    }
}

TEST(PhyMonitor, EndsThoughKeysCannotBeWaitedFor) {
    for (const auto call :
         {&emulator::FirmwareFaults::create_event, &emulator::FirmwareFaults::set_timer,
          &emulator::FirmwareFaults::wait_for_event}) {
        Bench b;
        (b.lab.faults().*call).fail(1, 0);
        EXPECT_TRUE(b.run("-p 0 -r 0 -lback -t 1").ends_with("Link Rate 1.5Gb/s.\n"));
        b.run("-p 0 -r 0 -lback", "k");
        EXPECT_EQ(b.logged("95 < "), 1U);
    }
}

TEST(PhyMonitor, TakesAReadThatFailsForAFault) {
    // Reads of a run with one cycle: three of AHCI, status, two of errors, the latch, two of the
    // counter. What a failed read gives has the pass bit clear and is no count of zero.
    for (std::uint64_t nth = 1; nth <= 9; ++nth) {
        Engine e(0xC70A);
        e.bench.lab.firmware().terminal().press("k");
        auto& fault = e.bench.lab.faults().memory_read;
        fault.fail(fault.calls() + nth);
        EXPECT_EQ(e.run(watched_run(0, 0, 9)), nth >= 4 && nth <= 6 ? 1 : 0) << nth;
        const std::string text = e.bench.lab.printed();
        EXPECT_EQ(text.find("not pass") != std::string::npos, nth == 4);
        EXPECT_EQ(text.find("not lock"), std::string::npos);
        EXPECT_EQ(text.find("error counter 0x5A5A") != std::string::npos, nth == 5 || nth == 6);
        e.bench.lab.take_misuses(); // what comes of a host control register that cannot be read
    }
}

TEST(PhyMonitor, PutsTheHalvesOfACountTogetherBitByBit) {
    Engine e(0xC70A);
    e.bench.fault(PhyFaultKind::kErrors, 0, 1, 1, 0x20000);
    e.bench.lab.firmware().terminal().press("k");
    auto& fault = e.bench.lab.faults().memory_read;
    fault.fail(fault.calls() + 6); // the low half
    e.run(watched_run(0, 0, 9));
    EXPECT_NE(e.bench.lab.printed().find("error counter 0x5A5A5A5A\r\n"), std::string::npos);
}

TEST(PhyTest, RunsEveryPortAtEveryRateWhateverRateIsGiven) {
    Bench b(0xC709);
    EXPECT_EQ(b.lab.run("-phytest -p ALL -r 2 -lback -t 1").text(), lab::expected("phy-all-ports"));
}

TEST(PhyTest, StopsOnAnErrorAsItsModeWants) {
    Bench all;
    all.fault(PhyFaultKind::kNoLock, 1);
    const std::string of_all = all.run("-p ALL -lback -erctn", std::string(9, 'k'));
    EXPECT_NE(of_all.find("Port 0 at Link Rate 6Gb/s.\n"
                          "PHY test PRBS7 on Port 1 at Link Rate 1.5 Gb/s\n"
                          "PHY test control not lock\n"
                          "PHY test failed on Port 1 at Link Rate 1.5Gb/s(error 1: Failed).\n"
                          "PHY test PRBS7 on Port 2 at Link Rate 1.5 Gb/s\n"),
              std::string::npos)
        << of_all;
    EXPECT_TRUE(of_all.ends_with("Phy test successfully on Port 3 at Link Rate 6Gb/s.\n"));

    Bench port;
    port.fault(PhyFaultKind::kNoLock, 1, 2); // good at 1.5 Gb/s
    EXPECT_EQ(port.run("-p 1 -lback -erctn -n lfsr", "k"), lab::expected("phy-stops-port"));

    Bench rate;
    rate.fault(PhyFaultKind::kNoLock, 1);
    EXPECT_EQ(rate.run("-r 1 -lback -erctn", "k"), lab::expected("phy-stops-rate"));
}

TEST(PhyTest, GoesOnBehindAnErrorUnlessToldToStop) {
    Bench b;
    b.fault(PhyFaultKind::kErrors, 0, 1, 1, 2);
    const std::string text = b.run("-r 0 -lback", "kkkk");
    EXPECT_TRUE(text.starts_with("PHY test PRBS7 on Port 0 at Link Rate 1.5 Gb/s\n"
                                 "PHY test PRBS error counter 0x2\n"
                                 "**PHY test failed on Port 0 at Link Rate 1.5Gb/s"
                                 "(error 1: Failed).\n"
                                 "PHY test PRBS7 on Port 1 "));
    EXPECT_TRUE(text.ends_with("**Phy test successfully on Port 3 at Link Rate 1.5Gb/s.\n"));
}

TEST(PhyTest, PrintsNoResultsWithoutLoopback) {
    Bench b(0xC709);
    b.fault(PhyFaultKind::kNoLock, 0);
    EXPECT_EQ(b.run("-r 1 -t 5 -erctn"), "PHY test PRBS7 on Port 0 at Link Rate 3 Gb/s\n"
                                         "PHY test PRBS7 on Port 1 at Link Rate 3 Gb/s\n");
    EXPECT_EQ(b.logged("95 < "), 0U) << "nobody looks";
}

TEST(PhyTest, RunsNothingWithoutAPortOrARate) {
    Bench b;
    EXPECT_EQ(b.lab.run("-phytest -lback").text(), kHandOff + kNoPattern);
    EXPECT_EQ(b.lab.run("-phytest -lback -n lbp").text(), kHandOff);
}

TEST(PhyTest, TakesPortsAndRatesThatTheAdapterDoesNotHave) {
    Bench b(0xC709);
    const std::string text = b.run("-p 3 -lback -erctn");
    EXPECT_TRUE(text.ends_with("PHY test PRBS counter is zero\n"
                               "*PHY test failed on Port 3 at Link Rate 1.5Gb/s"
                               "(error 1: Failed).\n"));
    EXPECT_EQ(b.lab.take_misuses().front(), "0.phy3 test control (95): the port is not there");
    EXPECT_EQ(b.run("-p 0 -r 3 -lback", "k"),
              "Wrong PHY rate.\n"
              "PHY test PRBS7 on Port 0 at Link Rate 1.5 Gb/s\n"
              "**Phy test successfully on Port 0 at Link Rate 1.5Gb/s.\n");
    EXPECT_EQ(b.logged("02 > 0071"), 1U);
    EXPECT_EQ(b.run("-p 256 -r 257 -lback", "k"),
              "PHY test PRBS7 on Port 0 at Link Rate 3 Gb/s\n"
              "**Phy test successfully on Port 0 at Link Rate 3Gb/s.\n");
}

TEST(PhyTest, IsRefusedByAdaptersWithoutTheBlock) {
    for (const int device : {0xC705, 0xC703}) {
        Bench b(static_cast<std::uint16_t>(device));
        const std::string slot = device == 0xC703 ? " -csid 1" : "";
        const std::string refusal =
            "PHY test no supported 1E5D:" + emulator::hex(static_cast<std::uint64_t>(device), 4) +
            "\n";
        std::string text = b.lab.run("-phytest -p 0" + slot).text();
        EXPECT_TRUE(text.ends_with(kNoPattern + refusal + refusal + refusal)) << text;
        text = b.lab.run("-phytest -p 0 -lback" + slot).text();
        const std::string failed = "*PHY test failed on Port 0 at Link Rate ";
        EXPECT_TRUE(text.ends_with(refusal + failed + "1.5Gb/s(error 1: Failed).\n" + refusal +
                                   failed + "3Gb/s(error 1: Failed).\n" + refusal + failed +
                                   "6Gb/s(error 1: Failed).\n"))
            << text;
    }
}

TEST(PhyTest, ReturnsOneForAFailureAndElseTheLastResult) {
    const auto result = [](std::uint16_t device, std::uint32_t flags) {
        Engine e(device);
        e.bench.fault(PhyFaultKind::kNoLock, 0);
        e.bench.lab.firmware().terminal().press("kk");
        e.context.flags = flags;
        return doPhyTest(e.context.adapters[0]);
    };
    EXPECT_EQ(result(0xC709, QFU_REQ_PHY_RATE | QFU_REQ_PHY_LOOPBACK), 1) << "port 1 passes";
    EXPECT_EQ(result(0xC709, QFU_REQ_PHY_RATE), 0);
    EXPECT_EQ(result(0xC709, 0), 0);
    Engine unsupported(0xC705);
    unsupported.context.flags = QFU_REQ_PHY_RATE;
    EXPECT_EQ(doPhyTest(unsupported.context.adapters[0]), 1);
}

TEST(PhyTest, TouchesNoPortWhenHelpIsAskedFor) {
    Bench b;
    b.lab.run("-phytest -h -y -p 0 -lback");
    EXPECT_EQ(b.logged("phy"), 0U);
}

TEST(Seconds, FollowTheCalendar) {
    Lab lab;
    lab.attach();
    constexpr std::uint32_t kStartOf2026 = 1767225600;
    constexpr std::uint32_t kStep = 86400 + 4001; // every day at another hour, minute and second
    for (std::uint32_t step = 0; step < 5 * 366; ++step) {
        ASSERT_EQ(qfu_time_seconds(), kStartOf2026 + step * kStep) << step;
        lab.clock().advance_us(std::uint64_t{kStep} * 1'000'000);
    }
    lab.faults().clock.fail(lab.faults().clock.calls() + 1);
    EXPECT_EQ(qfu_time_seconds(), QFU_TIME_UNKNOWN);
}

} // namespace
