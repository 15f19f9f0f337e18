// Whole runs in which one thing after another goes wrong.
#include "lab.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using emulator::SpiChip;
using lab::Bytes;
using lab::Lab;

constexpr std::size_t kAddress = 0x1FF0;
constexpr std::size_t kSize = 300;
constexpr std::size_t kFirstSector = 0x1000;
constexpr std::size_t kLastSectorEnd = 0x3000;

/// A run of "-wbf" over two sectors on a chip that is full of zeros.
struct ProgramRun {
    explicit ProgramRun(int flash_if, emulator::BusyTimes times = {})
        : chip(lab.kind(flash_if, "W25X40", times)) {
        std::ranges::fill(chip.contents(), std::uint8_t{0});
        lab.write_file("image.bin", image);
        line = flash_if == 1 ? "-cdid c709 -wbf image.bin -addr 0x1ff0 -y"
                             : "-cdid c705 -wbf image.bin -addr 0x1ff0 -y";
    }

    /// Runs it and looks at the chip: outside the two sectors nothing changes; inside, each byte is
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
        const Bytes& now = chip.contents();
        for (std::size_t i = 0; i < now.size(); ++i) {
            const bool in_sectors = i >= kFirstSector && i < kLastSectorEnd;
            const bool in_image = i >= kAddress && i < kAddress + kSize;
            const std::uint8_t wanted = in_image ? image[i - kAddress] : 0xFF;
            const bool allowed = !in_sectors ? now[i] == 0
                                 : success   ? now[i] == wanted
                                             : now[i] == 0 || now[i] == 0xFF || now[i] == wanted;
            ASSERT_TRUE(allowed) << "at " << i;
        }
    }

    Lab lab;
    SpiChip& chip;
    Bytes image = lab::pattern(kSize);
    std::string line;
};

/// Lets the nth call of one kind fail, for every n up to the calls of a good run.
void fail_every_call(int flash_if, emulator::CallFault emulator::FirmwareFaults::*calls) {
    ProgramRun good(flash_if);
    good.run();
    const std::uint64_t count = (good.lab.faults().*calls).calls();
    ASSERT_GT(count, 0U);
    for (std::uint64_t nth = 1; nth <= count; ++nth) {
        ProgramRun bad(flash_if);
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
    fail_every_call(1, &emulator::FirmwareFaults::pool);
    fail_every_call(4, &emulator::FirmwareFaults::pool);
}

TEST(EveryNth, FileCallMayFail) {
    fail_every_call(4, &emulator::FirmwareFaults::file);
}

TEST(EveryNth, OtherFirmwareCallMayFail) {
    for (const auto call :
         {&emulator::FirmwareFaults::output, &emulator::FirmwareFaults::locate_protocol,
          &emulator::FirmwareFaults::open_protocol}) {
        fail_every_call(4, call);
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
    ProgramRun good(4);
    good.run();
    const std::uint64_t count = good.lab.faults().break_query.calls();
    // Each of the thousand probes of the scan is alike; a few of them will do.
    for (std::uint64_t nth = 1; nth <= count; nth += nth > 20 && nth < 1000 ? 49 : 1) {
        ProgramRun broken(4);
        broken.lab.faults().break_query.fail(nth);
        const std::string text = broken.run();
        EXPECT_EQ(text.find("fail!!"), std::string::npos) << "a break is no failure; query " << nth;
    }
}

TEST(EveryNth, RegisterReadMayFail) {
    ProgramRun good(4, emulator::kNeverBusy);
    good.run();
    const std::uint64_t count = good.lab.faults().memory_read.calls();
    for (std::uint64_t nth = 1; nth <= count; nth += 7) {
        // A lost status or data word shows as a byte that does not verify, or not at all.
        ProgramRun bad(4, emulator::kNeverBusy);
        bad.lab.faults().memory_read.fail(nth);
        bad.run();
        bad.lab.take_misuses();
    }
}

TEST(Memory, PeakUseIsSmall) {
    ProgramRun program(1);
    program.run();
    program.lab.run("-cdid c709 -rfb dump.bin -addr 0 -sz 10000 -bp", std::string(20, ' '));
    EXPECT_LT(program.lab.firmware().pool().peak() - 3072, 32U * 1024);
}

TEST(Silence, EveryOperationOnAChipThatStopsAnsweringIsBounded) {
    ProgramRun dead(4);
    dead.lab.stop_listening();
    // Statuses read as 0, so that write enable never shows.
    dead.chip.faults().add(
        lab::fault(emulator::FaultKind::kNoAnswer, emulator::Operation::kReadStatus));
    const std::string text = dead.run();
    EXPECT_NE(text.find("440...\n"), std::string::npos);
    EXPECT_NE(text.find("Write file is fail!!"), std::string::npos);
    dead.lab.take_misuses();
}

} // namespace
