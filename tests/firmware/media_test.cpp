// Boot media with unattended jobs, as firmware boots them.
#include "guest.h"
#include "jobs/results.h"
#include "tests/lab.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using namespace firmware;
using Drive = emulator::Drive::Kind;

constexpr char kTwoAdapters[] = "job line\n"
                                "on-failure continue\n"
                                "at-end power-off\n"
                                "write a.bin -addr 0x1000 -model 1e5d:c705 -at 00:02.0 -csid 1\n"
                                "write b.bin -model 1e5d:c709\n";

/// A job folder, the medium made of it, and a machine with two adapters.
struct BootMedium : testing::Test {
    BootMedium() {
        folder.write("a.bin", a);
        folder.write("b.bin", b);
    }

    emulator::SpiChip& add(std::uint16_t device, std::uint8_t slot) {
        auto& adapter = machine.add(*emulator::find_adapter_model(0x1E5D, device), {0, slot, 0}, 0);
        auto& chip =
            machine.add_spi_chip(adapter, *emulator::find_spi_part("W25X40"), emulator::kNeverBusy);
        std::ranges::fill(chip.contents(), std::uint8_t{0});
        return chip;
    }

    void make_medium(const std::string& job) const {
        folder.write("job.txt", job);
        shell(QFU_SOURCE_DIR, "scripts/media --preset host '" + folder.path().string() + "' -o '" +
                                  image().string() + "'");
    }

    std::filesystem::path image() const { return folder.path() / "medium.img"; }

    /// Copies files between the stick and the job's folder.
    void mtools(const std::string& command, const std::string& arguments) const {
        shell(folder.path(), command +
                                 " -i medium.img@@$(partx -g -o START -n 2 medium.img |"
                                 " awk '{ print $1 * 512 }') " +
                                 arguments);
    }

    /// Leaves so many bytes free on the stick.
    void fill_stick(int left) const {
        mtools("mdir", ":: >free");
        shell(folder.path(), "head -c $(($(grep 'bytes free' free | tr -dc 0-9) - " +
                                 std::to_string(left) + ")) /dev/zero >filler");
        mtools("mcopy", "filler ::/filler" + std::to_string(left));
    }

    /// What the results say after one more start of the machine.
    void boot(Drive medium, const Operator& at_console = {}, const Platform& platform = kX64) {
        serial = boot_medium(platform, machine, image(), medium, at_console);
        results.add(serial, "serial");
    }

    /// Each adapter's place and status.
    std::vector<std::string> lines() const {
        std::vector<std::string> lines;
        for (const jobs::Line& line : results.lines()) {
            lines.push_back(std::string(line.word("place")) + " " +
                            std::string(line.word("status")));
        }
        return lines;
    }

    const emulator::SteadyClock clock;
    mutable emulator::Machine machine{clock};
    const lab::Bytes a = lab::pattern(600, 1);
    const lab::Bytes b = lab::pattern(5000, 2);
    const lab::ScratchFolder folder;
    jobs::Results results;
    std::string serial;
};

TEST_F(BootMedium, StickNamesTheAdapterThatFailsAndKeepsBackupsAndResults) {
    add(0xC705, 2).faults().add({.kind = emulator::FaultKind::kWrongData,
                                 .on = emulator::Operation::kRead,
                                 .address = 0x1028,
                                 .mask = 2});
    auto& good = add(0xC709, 3);
    std::ranges::copy(b, good.contents().begin());
    make_medium(kTwoAdapters);
    boot(Drive::kStick);
    const std::vector<std::string> expected = {"00:02.0 failed", "00:03.0 held"};
    EXPECT_EQ(lines(), expected) << serial;
    EXPECT_EQ(good.count(emulator::Operation::kSectorErase), 0U);
    mtools("mcopy", "::/job/results.txt ::/job/a.bin.old000 .");
    EXPECT_EQ(lab::read_file(folder.path() / "a.bin.old000").size(), 0x1000U);
    const auto kept = lab::read_file(folder.path() / "results.txt");
    results = {};
    results.add({reinterpret_cast<const char*>(kept.data()), kept.size()}, "results.txt");
    EXPECT_EQ(lines(), expected);
}

TEST_F(BootMedium, CdGoesOnWhereThePowerWasLost) {
    auto& chip = add(0xC709, 3);
    make_medium("at-end power-off\nwrite b.bin -model any\n");
    const auto medium = lab::read_file(image());
    boot(Drive::kCd, [&](const std::string& line) {
        return line.find("as b.bin.old000") == line.npos ? "" : kPullThePlug;
    });
    EXPECT_EQ(lines(), std::vector<std::string>{"00:03.0 unfinished"}) << serial;
    EXPECT_FALSE(std::ranges::equal(chip.contents().first(b.size()), b));
    // The adapter and the CD go into a machine with the other processor.
    boot(Drive::kCd, {}, kAArch64);
    EXPECT_EQ(lines(), std::vector<std::string>{"00:03.0 done"}) << serial;
    EXPECT_TRUE(std::ranges::equal(chip.contents().first(b.size()), b));
    EXPECT_EQ(lab::read_file(image()), medium);
}

TEST_F(BootMedium, WritesNothingWhenMediumOrAdaptersAreNotThoseOfTheJob) {
    const auto& first = add(0xC705, 2);
    const auto& second = add(0xC709, 3);
    std::string job = kTwoAdapters;
    make_medium(job.replace(job.find("00:02.0"), 7, "01:02.0"));
    boot(Drive::kStick);
    const std::vector<std::string> refused = {"00:02.0 refused", "00:03.0 refused"};
    EXPECT_EQ(lines(), refused) << serial;
    EXPECT_NE(serial.find("job.txt:4: adapters needed: 1, found: 0"), serial.npos) << serial;
    make_medium(kTwoAdapters);
    fill_stick(2 * 2048);
    results = {};
    boot(Drive::kStick);
    EXPECT_EQ(lines(), refused) << serial;
    EXPECT_NE(serial.find("a.bin.old000: cannot be written"), serial.npos) << serial;
    folder.write("a.bin", std::span(a).first(a.size() - 1));
    mtools("mcopy -o", "a.bin ::/job/a.bin");
    results = {};
    boot(Drive::kStick);
    EXPECT_EQ(lines(), std::vector<std::string>{"- refused"}) << serial;
    EXPECT_NE(serial.find("damaged: job\\a.bin is not what it was"), serial.npos) << serial;
    for (const emulator::SpiChip* chip : {&first, &second}) {
        EXPECT_EQ(chip->count(emulator::Operation::kSectorErase), 0U);
    }
}

TEST_F(BootMedium, WithoutAJobEndsAtThePromptAndSaysWhatCanBeTyped) {
    add(0xC709, 3);
    shell(QFU_SOURCE_DIR, "cmake --build build/host --target medium");
    serial = boot_medium(kX64, machine, QFU_SOURCE_DIR "/build/qfu-" QFU_VERSION ".img", Drive::kCd,
                         [](const std::string& line) {
                             return line.find("files that you make are gone") != line.npos
                                        ? "qfu -l\rreset -s\r"
                                        : "";
                         });
    EXPECT_NE(serial.find("flash backup all.bin"), serial.npos) << serial;
    EXPECT_NE(serial.find("cs1:SPI FLASH Chip Whole Size=80000, ID[EF 30 13]."), serial.npos)
        << serial;
}

} // namespace
