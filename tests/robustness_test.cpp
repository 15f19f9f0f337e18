// Whole runs in which one thing after another goes wrong.
#include "lab.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using emulator::SpiChip;
using lab::Bytes;
using lab::Lab;

constexpr std::size_t kAddress = 0x1FF0;
constexpr std::size_t kSize = 300;

bool all_zero(std::span<const std::uint8_t> bytes) {
    return bytes.empty() ||
           (bytes[0] == 0 && lab::equal(bytes.first(bytes.size() - 1), bytes.subspan(1)));
}

/// What is programmed: a SPI chip by the interface kind, or the NOR chip of kind 2.
enum class Target : std::uint8_t { kSpi1 = 1, kNor = 2, kSpi4 = 4 };

/// A run of "-wbf" over two erase units on a chip that is full of zeros.
struct ProgramRun {
    explicit ProgramRun(Target target, emulator::BusyTimes times = {}) {
        if (target == Target::kNor) {
            contents = lab.nor_chip(lab.adapter(0xC703), 0x257E00EC, times).contents();
            begin = 0;
            end = 0x4000;
        } else {
            spi = &lab.kind(static_cast<int>(target), "W25X40", times);
            contents = spi->contents();
        }
        lab::fill(contents, 0);
        lab.write_file("image.bin", image);
        line = target == Target::kSpi1  ? "-cdid c709 -wbf image.bin -addr 0x1ff0 -y"
               : target == Target::kNor ? "-cdid c703 -wbf image.bin -addr 0x1ff0 -y"
                                        : "-cdid c705 -wbf image.bin -addr 0x1ff0 -y";
    }

    /// Runs it and looks at the chip: outside the two units nothing changes; inside, each byte is
    /// old, erased or the image's, and a run that reports success has left all of the image.
    std::string run() {
        std::string text = lab.run(line).text();
        // An image whose size cannot be asked for counts as empty, and the user is told so.
        const bool success = text.find("successful") != std::string::npos &&
                             text.find("its size is 300.") != std::string::npos;
        expect_only_allowed_contents(success);
        return text;
    }

    void expect_only_allowed_contents(bool success) const {
        ASSERT_TRUE(all_zero(contents.first(begin)) && all_zero(contents.subspan(end)));
        for (std::size_t i = begin; i < end; ++i) {
            const std::uint8_t now = contents[i];
            const bool in_image = i >= kAddress && i < kAddress + kSize;
            const std::uint8_t wanted = in_image ? image[i - kAddress] : 0xFF;
            if (now != wanted && (success || (now != 0 && now != 0xFF))) {
                FAIL() << "at " << i;
            }
        }
    }

    Lab lab;
    SpiChip* spi = nullptr;
    std::span<std::uint8_t> contents;
    std::size_t begin = 0x1000; ///< of the units that the image touches
    std::size_t end = 0x3000;
    Bytes image = lab::pattern(kSize);
    std::string line;
};

/// Lets the nth call of one kind fail, for every n up to the calls of a good run.
void fail_every_call(Target target, emulator::CallFault emulator::FirmwareFaults::*calls) {
    ProgramRun good(target);
    good.run();
    const std::uint64_t count = (good.lab.faults().*calls).calls();
    ASSERT_GT(count, 0U);
    for (std::uint64_t nth = 1; nth <= count; ++nth) {
        ProgramRun bad(target);
        (bad.lab.faults().*calls).fail(nth);
        const std::string text = bad.run();
        // Bits can only be set wrongly where the chip was not erased before; silicon would refuse.
        const auto misuses = bad.lab.take_misuses();
        EXPECT_TRUE(std::ranges::all_of(
            misuses, [](const std::string& m) { return m.find("sets bits") != std::string::npos; }))
            << misuses.front() << " with call " << nth;
        if (testing::Test::HasFatalFailure()) {
            FAIL() << "with call " << nth << " failing:\n" << text;
        }
    }
}

TEST(EveryNth, PoolAllocationMayFail) {
    fail_every_call(Target::kSpi1, &emulator::FirmwareFaults::pool);
    fail_every_call(Target::kNor, &emulator::FirmwareFaults::pool);
    fail_every_call(Target::kSpi4, &emulator::FirmwareFaults::pool);
}

TEST(EveryNth, FileCallMayFail) {
    fail_every_call(Target::kNor, &emulator::FirmwareFaults::file);
    fail_every_call(Target::kSpi4, &emulator::FirmwareFaults::file);
}

TEST(EveryNth, OtherFirmwareCallMayFail) {
    for (const auto call :
         {&emulator::FirmwareFaults::output, &emulator::FirmwareFaults::locate_protocol,
          &emulator::FirmwareFaults::open_protocol}) {
        fail_every_call(Target::kSpi4, call);
    }
}

TEST(EveryNth, KeyCallMayFailAtAPrompt) {
    for (const auto call :
         {&emulator::FirmwareFaults::create_event, &emulator::FirmwareFaults::set_timer,
          &emulator::FirmwareFaults::wait_for_event, &emulator::FirmwareFaults::read_key}) {
        Lab lab;
        auto& chip = lab.kind(4);
        chip.contents()[0] = 0;
        (lab.faults().*call).fail(1, 25);
        EXPECT_TRUE(lab.run("-wpa", "y").text().ends_with("Ok!\n"));
        EXPECT_EQ(chip.contents()[0], 0xFF);
    }
}

TEST(EveryNth, BreakQueryMayBreak) {
    for (const Target target : {Target::kNor, Target::kSpi4}) {
        ProgramRun good(target);
        good.run();
        const std::uint64_t count = good.lab.faults().break_query.calls();
        // Each of the thousand probes of the scan is alike; a few of them will do. NOR asks at each
        // poll.
        const std::uint64_t step = target == Target::kNor ? 29 : 1;
        for (std::uint64_t nth = 1; nth <= count; nth += nth > 20 && nth < 1000 ? 49 : step) {
            ProgramRun broken(target);
            broken.lab.faults().break_query.fail(nth);
            const std::string text = broken.run();
            EXPECT_EQ(text.find("fail!!"), std::string::npos)
                << "a break is no failure; query " << nth;
            // A break ends NOR's waits, so that what follows may meet a busy chip.
            for (const std::string& misuse : broken.lab.take_misuses()) {
                EXPECT_TRUE(target == Target::kNor && misuse.ends_with("while the chip is busy"))
                    << misuse;
            }
        }
    }
}

TEST(EveryNth, RegisterReadMayFail) {
    for (const Target target : {Target::kNor, Target::kSpi4}) {
        ProgramRun good(target, emulator::kNeverBusy);
        good.run();
        const std::uint64_t count = good.lab.faults().memory_read.calls();
        for (std::uint64_t nth = 1; nth <= count; nth += target == Target::kNor ? 37 : 7) {
            // A lost status or data word shows as a byte that does not verify, or not at all.
            ProgramRun bad(target, emulator::kNeverBusy);
            bad.lab.faults().memory_read.fail(nth);
            bad.run();
            bad.lab.take_misuses();
        }
    }
}

/// A short "-wbf" over the border of two erase units of a chip that holds something.
struct CutRun {
    explicit CutRun(Target target)
        : adapter(lab.adapter(target == Target::kSpi1  ? 0xC709
                              : target == Target::kNor ? 0xC703
                                                       : 0xC705)) {
        constexpr emulator::BusyTimes kShort{0, 10, 1}; // erases last for a poll or two
        contents = target == Target::kNor ? lab.nor_chip(adapter, 0x257E00EC, kShort).contents()
                                          : lab.chip(adapter, "MX25L512", kShort).contents();
        unit = target == Target::kNor ? 0x2000 : 0x1000;
        std::ranges::copy(lab::pattern(contents.size(), 2), contents.begin());
        expected.assign(contents.begin(), contents.end());
        std::fill_n(expected.begin() + 2 * unit, 2 * unit, std::uint8_t{0xFF});
        const Bytes image = lab::pattern(12);
        std::ranges::copy(image, expected.begin() + 3 * unit - 6);
        lab.write_file("image.bin", image);
        line = "-wbf image.bin -y -cdid " + emulator::hex(adapter.model().device, 4) + " -addr " +
               std::to_string(3 * unit - 6);
    }

    /// Runs it and looks at the chip. @returns what is wrong
    std::string run() {
        const std::string text = lab.run(line).text();
        return !text.ends_with("successful!!\n") ? text
               : !lab::equal(contents, expected) ? "the flash does not hold the image alone"
               : lab.machine().journal().misuse_count() > 0 ? lab.take_misuses().front()
                                                            : "";
    }

    /// The whole machine loses power in an access, comes up again and runs the same once more.
    [[noreturn]] void run_with_power_cut(std::uint64_t access) {
        adapter.add_power_fault({.nth = access});
        lab.machine().journal().listen_to_cycles([this](std::string_view cycle) {
            if (cycle.ends_with("power is lost")) {
                adapter.power_up();
                const std::string wrong = run(); // and the first run never goes on
                std::cerr << wrong;
                _exit(wrong.empty() ? 0 : 1);
            }
        });
        run();
        _exit(2);
    }

    Lab lab;
    emulator::Adapter& adapter;
    std::span<std::uint8_t> contents;
    std::uint32_t unit;
    Bytes expected;
    std::string line;
};

TEST(PowerCut, InAnyAccessIsMendedByTheSameCommand) {
    for (const Target target : {Target::kSpi1, Target::kNor, Target::kSpi4}) {
        CutRun whole(target);
        ASSERT_EQ(whole.run(), "");
        const std::uint64_t accesses = whole.adapter.accesses();
        CutRun cut(target);
        for (std::uint64_t access = 1; access <= accesses; ++access) {
            const pid_t child = fork();
            if (child == 0) {
                cut.run_with_power_cut(access);
            }
            int status = -1;
            waitpid(child, &status, 0);
            ASSERT_EQ(status, 0) << "cut in access " << access << " of " << accesses << " with "
                                 << cut.line;
        }
    }
}

TEST(Memory, PeakUseIsSmall) {
    ProgramRun program(Target::kSpi1);
    program.run();
    program.lab.run("-cdid c709 -rfb dump.bin -addr 0 -sz 10000 -bp", std::string(20, ' '));
    EXPECT_LT(program.lab.firmware().pool().peak() - 3072, 32U * 1024);
}

TEST(Silence, EveryOperationOnAChipThatStopsAnsweringIsBounded) {
    ProgramRun dead(Target::kSpi4);
    dead.lab.stop_listening();
    // Statuses read as 0, so that write enable never shows.
    dead.spi->faults().add(
        lab::fault(emulator::FaultKind::kNoAnswer, emulator::Operation::kReadStatus));
    const std::string text = dead.run();
    EXPECT_NE(text.find("440...\n"), std::string::npos);
    EXPECT_NE(text.find("Write file is fail!!"), std::string::npos);
    dead.lab.take_misuses();
}

} // namespace
