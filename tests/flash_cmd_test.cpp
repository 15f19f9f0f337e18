#include "flash_cmd.h"

#include "lab.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using emulator::FaultKind;
using emulator::Operation;
using lab::Bytes;
using lab::Lab;

const std::string kBlankOnConsole = "\r\n\r" + std::string(56, ' ');
const std::string kBlank = "\n\r" + std::string(56, ' ');

/// The chip's bytes from `address` on.
Bytes stored(emulator::SpiChip& chip, std::size_t address, std::size_t count) {
    const auto first = chip.contents().begin() + static_cast<std::ptrdiff_t>(address);
    return {first, first + static_cast<std::ptrdiff_t>(count)};
}

struct Kind : testing::TestWithParam<int> {
    static std::string slot() { return GetParam() == 2 ? " -csid 1" : ""; }
    /// What a kind says about the NOR chip that it does not have.
    static std::string found() {
        return GetParam() == 2 ? "\n(0xffffffff)\n\nNo found any NOR Flash dev...950\n" : "";
    }
};

TEST_P(Kind, ProgramsVerifiesAndDumpsAnImage) {
    Lab lab;
    auto& chip = lab.kind(GetParam());
    lab::fill(chip.contents(), 0);
    const Bytes image = lab::pattern(4097);
    lab.write_file("image.bin", image);
    const auto run = lab.run("-wbf image.bin -addr 0x1800 -y" + slot());
    EXPECT_EQ(run.status, EFI_SUCCESS);
    EXPECT_EQ(run.text(), ">>The file name is image.bin and its size is 4097.\n" + found() +
                              kBlank + "\rErase block 00001000\rErase block 00002000" + kBlank +
                              "\rWrite address 00001800\rWrite address 00002800\n"
                              "\nWrite file is successful!!\n");
    EXPECT_EQ(stored(chip, 0x1800, 4097), image);
    EXPECT_EQ(stored(chip, 0x1000, 0x800), Bytes(0x800, 0xFF))
        << "the rest of the sectors is erased";
    EXPECT_EQ(stored(chip, 0x0FFF, 1), Bytes{0});
    EXPECT_EQ(stored(chip, 0x3000, 1), Bytes{0});

    const auto dump = lab.run("-rfb dump.bin -addr 0x1800 -sz 4097" + slot());
    EXPECT_EQ(dump.text(), found() + kBlank +
                               "\rRead address 00001800\rRead address 00002800\n"
                               "\nRead file is successful!!\n");
    EXPECT_EQ(lab.read_file("dump.bin"), image);
}

TEST_P(Kind, ErasesARangeAndWipesTheChip) {
    Lab lab;
    auto& chip = lab.kind(GetParam());
    lab::fill(chip.contents(), 0);
    EXPECT_EQ(lab.run("-se -addr 0x1000 -sz 0x1001 -y" + slot()).text(),
              found() + kBlank + "\rErase block 00001000\rErase block 00002000\n");
    EXPECT_EQ(stored(chip, 0x0FFF, 0x2002)[0], 0);
    EXPECT_EQ(stored(chip, 0x1000, 0x2000), Bytes(0x2000, 0xFF));
    EXPECT_EQ(stored(chip, 0x3000, 1), Bytes{0});
    EXPECT_EQ(lab.run("-wpa -y" + slot()).text(), found() + "Wipe whole SPI-Flash Chip...Ok!\n");
    EXPECT_EQ(std::ranges::count(chip.contents(), 0xFF), 0x80000);
}

INSTANTIATE_TEST_SUITE_P(Interfaces, Kind, testing::Values(1, 2, 4));

TEST(Confirmation, TakesYAloneForYes) {
    for (const auto& [key, erased] : {std::pair("y", true), std::pair("Y", true),
                                      std::pair("n", false), std::pair("\r", false)}) {
        Lab lab;
        auto& chip = lab.kind(1);
        chip.contents()[0] = 0;
        const auto run = lab.run("-wpa", key);
        EXPECT_EQ(run.status, EFI_SUCCESS);
        EXPECT_TRUE(run.text().starts_with("Press \"Y\" to start, other key will skip...\n"));
        EXPECT_EQ(chip.contents()[0] == 0xFF, erased);
    }
}

TEST(Confirmation, SkipsEveryCommandThatChangesTheChip) {
    Lab lab;
    auto& chip = lab.kind(1);
    lab::fill(chip.contents(), 0);
    lab.write_file("image.bin", "x");
    const std::string question = "Press \"Y\" to start, other key will skip...\n";
    lab.firmware().terminal().press(emulator::KeyStroke{1, 0});
    EXPECT_EQ(lab.run("-wpa").text(), question);
    EXPECT_EQ(lab.run("-se -addr 0 -sz 1", "n").text(), question);
    EXPECT_TRUE(lab.run("-wbf image.bin -addr 0", "n").text().ends_with("is 1.\n" + question));
    EXPECT_EQ(std::ranges::count(chip.contents(), 0), 0x80000);
}

TEST(Program, AnEmptyImageErasesAndWritesNothing) {
    Lab lab;
    auto& chip = lab.kind(4);
    lab.write_file("image.bin", "");
    EXPECT_TRUE(lab.run("-wbf image.bin -addr 0x1001", "y")
                    .text()
                    .ends_with("skip...\n" + kBlank + kBlank + "\n\nWrite file is successful!!\n"));
    EXPECT_EQ(chip.count(Operation::kSectorErase) + chip.count(Operation::kProgram), 0U);
}

TEST(Program, AnImageMayEndAtTheChipsLastByteButNotBehindIt) {
    Lab lab;
    auto& chip = lab.kind(4, "W25X40", emulator::kNeverBusy);
    lab.write_file("fits.bin", lab::pattern(0x100));
    lab.write_file("large.bin", lab::pattern(0x101));
    // The image counts, not the size that is asked for.
    EXPECT_TRUE(lab.run("-wbf fits.bin -addr 0x7ff00 -sz 1 -y")
                    .text()
                    .ends_with("Write file is successful!!\n"));
    EXPECT_EQ(stored(chip, 0x7FF00, 0x100), lab::pattern(0x100));
    const auto refused = lab.run("-wbf large.bin -addr 0x7ff00 -y");
    EXPECT_TRUE(
        refused.text().ends_with("Address(0x7ff00) + File Size(0x101) > Flash Size(0x80000)\n"));
    EXPECT_EQ(refused.status, EFI_SUCCESS);
    EXPECT_TRUE(lab.run("-wbf large.bin -addr 0xfffffff0 -y")
                    .text()
                    .ends_with("Address(0xfffffff0) + File Size(0x101) > Flash Size(0x80000)\n"));
    EXPECT_EQ(stored(chip, 0x7FF00, 0x100), lab::pattern(0x100)) << "nothing was erased";
}

TEST(Program, DumpsBothSidesOfThePieceThatDoesNotVerify) {
    Lab lab;
    auto& chip = lab.kind(4);
    Bytes image(50, 0x41);
    image[40] = 0x00;
    lab.write_file("image.bin", image);
    auto fault = lab::fault(FaultKind::kStuckBits, Operation::kProgram);
    fault.address = 0x1000 + 40;
    fault.mask = 0x02;
    chip.faults().add(fault);
    const std::string text = lab.run("-wbf image.bin -addr 0x1000 -y").text();
    const std::string header =
        "              00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 0123456789ABCDEF\n";
    const std::size_t source = text.find("\nSource(0x");
    ASSERT_NE(source, std::string::npos);
    EXPECT_EQ(text.substr(text.find(" Data=> ", source)),
              " Data=> \n" + header +
                  "0x00000000    41 41 41 41 41 41 41 41 00 41 41 41 41 41 41 41 AAAAAAAA.AAAAAAA\n"
                  "0x00000010    41 41                                           AA\n"
                  "\nTarget(0x1020) Data=> \n" +
                  header +
                  "0x00000000    41 41 41 41 41 41 41 41 02 41 41 41 41 41 41 41 AAAAAAAA.AAAAAAA\n"
                  "0x00000010    41 41                                           AA\n"
                  "\nWrite file is fail!!\n\n");
}

TEST(Program, StopsAtTheBlockThatFailsAndKeepsTheOnesBefore) {
    Lab lab;
    auto& chip = lab.kind(4);
    const Bytes image = lab::pattern(3 * 4096);
    lab.write_file("image.bin", image);
    auto fault = lab::fault(FaultKind::kNotStored, Operation::kProgram);
    fault.address = 4096 + 7;
    chip.faults().add(fault);
    const std::string text = lab.run("-wbf image.bin -addr 0 -y").text();
    EXPECT_NE(text.find("\rWrite address 00000000\nSource("), std::string::npos);
    EXPECT_EQ(text.find("successful"), std::string::npos);
    EXPECT_EQ(stored(chip, 0, 4096), Bytes(image.begin(), image.begin() + 4096));
    EXPECT_EQ(stored(chip, 2 * 4096, 4096), Bytes(4096, 0xFF));
}

TEST(Program, ReadsTheImageAnewForEveryAdapter) {
    Lab lab;
    auto& first = lab.kind(1);
    auto& second = lab.kind(4);
    const Bytes image = lab::pattern(5000);
    lab.write_file("image.bin", image);
    lab.run("-wbf image.bin -addr 0 -y -adid ALL");
    EXPECT_EQ(stored(first, 0, 5000), image);
    EXPECT_EQ(stored(second, 0, 5000), image);
}

TEST(Program, AnImageThatCannotBeReadEndsLikeABlockThatDoesNotVerify) {
    // The chip list is read first, then the blocks of the image.
    for (const bool comes_short : {false, true}) {
        Lab lab;
        auto& chip = lab.kind(4);
        lab.write_file("image.bin", lab::pattern(2 * 4096));
        if (comes_short) {
            lab.faults().short_read.fail(3);
        } else {
            lab.run("-l");
            const std::uint64_t calls = lab.faults().file.calls();
            lab.run("-wbf image.bin -addr 0 -y");
            const std::uint64_t run = lab.faults().file.calls() - calls;
            // From the end: free the list, then information and read of the second block.
            lab.faults().file.fail(lab.faults().file.calls() + run - 1);
        }
        const std::string text = lab.run("-wbf image.bin -addr 0 -y").text();
        EXPECT_TRUE(text.ends_with("\rWrite address 00000000\nWrite file is fail!!\n\n")) << text;
        EXPECT_EQ(stored(chip, 4096, 4096), Bytes(4096, 0xFF)) << "nothing was programmed from it";
    }
}

TEST(Program, AnImageThatCannotBeRewoundLeavesTheChipAlone) {
    Lab lab;
    auto& chip = lab.kind(4);
    lab.write_file("image.bin", lab::pattern(100));
    lab.run("-wbf image.bin -addr 0 -y");
    const std::uint64_t calls = lab.faults().file.calls();
    lab.run("-wbf image.bin -addr 0 -y");
    const std::uint64_t run = lab.faults().file.calls() - calls;
    lab.cycles();
    // From the end: free the list, read and information of the block, then the rewind.
    lab.faults().file.fail(lab.faults().file.calls() + run - 3);
    const std::string text = lab.run("-wbf image.bin -addr 0 -y").text();
    EXPECT_TRUE(text.ends_with(kBlank + kBlank + "\nWrite file is fail!!\n\n")) << text;
    EXPECT_EQ(chip.count(Operation::kSectorErase), 2U);
}

TEST(Program, AReadBackThatTimesOutShowsAsADifference) {
    Lab lab;
    auto& chip = lab.kind(4);
    lab.write_file("image.bin", "abcd");
    chip.faults().add(lab::fault(FaultKind::kControllerBusy, Operation::kRead));
    const std::string text = lab.run("-wbf image.bin -addr 0 -y").text();
    EXPECT_NE(text.find("1029 timeout\n\nSource("), std::string::npos);
    EXPECT_NE(text.find("Write file is fail!!"), std::string::npos);
}

TEST(Program, GoesOnBehindAnEraseThatFailsAndShowsWhatCameOfIt) {
    Lab lab;
    auto& chip = lab.kind(4);
    lab::fill(chip.contents(), 0);
    chip.faults().add(lab::fault(FaultKind::kIgnored, Operation::kSectorErase));
    lab.write_file("image.bin", Bytes{0, 0, 0, 1});
    const std::string text = lab.run("-wbf image.bin -addr 0 -y").text();
    EXPECT_NE(text.find("\nTarget(0x0) Data=> \n"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("\nWrite file is fail!!\n\n"));
    EXPECT_EQ(chip.count(Operation::kProgram), 4U);
    lab.take_misuses(); // bits that programming cannot set
}

TEST(Commands, ApplyInTheirOrder) {
    Lab lab;
    auto& chip = lab.kind(1);
    chip.contents()[0x1000] = 0;
    lab.write_file("image.bin", lab::pattern(0x3000));
    // The range erase takes the larger of size and image and programs nothing.
    EXPECT_TRUE(
        lab.run("-se -addr 0x1000 -sz 0x1000 -wbf image.bin -y")
            .text()
            .ends_with("\rErase block 00001000\rErase block 00002000\rErase block 00003000\n"));
    EXPECT_TRUE(lab.run("-se -addr 0 -sz 0x4000 -wbf image.bin -y")
                    .text()
                    .ends_with("\rErase block 00003000\n"));
    EXPECT_EQ(chip.count(Operation::kProgram), 0U);
    EXPECT_EQ(lab.run("-wpa -se -addr 0 -sz 1 -phytest -p 0 -y").text(),
              "Wipe whole SPI-Flash Chip...Ok!\n");
    // Requests that lack something do nothing.
    EXPECT_EQ(lab.run("-se -y").text(), "");
    EXPECT_EQ(lab.run("-rfb dump.bin -addr 0").text(), "");
    EXPECT_EQ(lab.run("-rfb dump.bin -sz 1").text(), "");
    EXPECT_EQ(lab.run("-wbf image.bin").text(),
              ">>The file name is image.bin and its size is 12288.\n");
    EXPECT_EQ(lab.run("-se -addr 0").text(), "please input -sz or a file -wbf!!\n");
}

TEST(Commands, ReportASlotWithoutAChip) {
    Lab lab;
    lab.adapter(0xC709);
    for (const char* line : {"-wpa -y", "-phytest -p 0"}) {
        const auto run = lab.run(line);
        EXPECT_TRUE(run.text().ends_with("No support dev inteface...\n"));
        EXPECT_EQ(run.status, EFI_SUCCESS);
    }
}

TEST(Wipe, ReportsAChipThatDoesNotErase) {
    Lab lab;
    auto& chip = lab.kind(1);
    chip.faults().add(lab::fault(FaultKind::kControllerBusy, Operation::kChipErase));
    EXPECT_EQ(lab.run("-wpa -y").text(), "Wipe whole SPI-Flash Chip...970 timeout\nFail!\n");
}

TEST(Dump, OfNothingLeavesAnEmptyFile) {
    Lab lab;
    lab.kind(1);
    lab.write_file("dump.bin", "old");
    EXPECT_EQ(lab.run("-rfb dump.bin -addr 0 -sz 0").text(),
              kBlank + "\n\nRead file is successful!!\n");
    EXPECT_EQ(lab.read_file("dump.bin"), Bytes{});
}

TEST(Dump, IsNotCutAtTheEndOfTheChip) {
    Lab lab;
    lab.kind(1).contents()[0x7FFFF] = 7;
    EXPECT_TRUE(lab.run("-rfb dump.bin -addr 0x7ffff -sz 0x1001")
                    .text()
                    .ends_with("\rRead address 00080fff\n\nRead file is successful!!\n"));
    const Bytes dump = lab.read_file("dump.bin");
    EXPECT_EQ(dump.size(), 0x1001U);
    EXPECT_EQ(dump[0], 7);
    lab.take_misuses(); // addresses that the chip does not have
}

TEST(Dump, OfSeveralAdaptersGoesIntoOneFile) {
    Lab lab;
    lab.kind(1).contents()[0] = 1;
    lab.kind(4).contents()[0] = 2;
    lab.run("-rfb dump.bin -addr 0 -sz 2 -adid ALL");
    EXPECT_EQ(lab.read_file("dump.bin"), (Bytes{2, 0xFF, 1, 0xFF})) << "in list order";
}

TEST(Memory, OfTheBlockBufferMayBeMissing) {
    for (const char* line : {"-wbf image.bin -addr 0 -y", "-rfb dump.bin -addr 0 -sz 1"}) {
        Lab lab;
        auto& chip = lab.kind(1);
        lab.write_file("image.bin", "x");
        lab.run(line);
        const std::string good = lab.run(line).text();
        bool seen = false;
        for (std::uint64_t nth = 1; nth < 200 && !seen; ++nth) {
            lab.faults().pool.fail(lab.faults().pool.calls() + nth);
            const std::uint64_t erases = chip.count(Operation::kSectorErase);
            const std::string text = lab.run(line).text();
            seen = text.ends_with("The memory is out of resource!!\n");
            EXPECT_TRUE(!seen || chip.count(Operation::kSectorErase) == erases);
        }
        EXPECT_TRUE(seen) << line;
    }
}

/// A slot of routines that only count, behind an adapter of no interface.
struct CountingSlot {
    CountingSlot() {
        lab.attach();
        finished = 0;
        adapter.context = &context;
        adapter.current_slot = &slot;
        slot.chip_type = QFU_CHIP_SPI;
        slot.chip = &entry;
        entry.whole_size = 0x1000;
        slot.finish = [](QFU_ADAPTER&) { return ++finished; };
        context.flags = QFU_REQ_YES;
    }
    ~CountingSlot() { lab.attach(); }

    std::string run(std::uint32_t flags) {
        context.flags = QFU_REQ_YES | flags;
        status = process_file_fun(adapter);
        return lab.printed();
    }

    inline static std::uint32_t finished = 0;
    Lab lab;
    QFU_CONTEXT context{};
    QFU_ADAPTER adapter{};
    QFU_FLASH_SLOT slot{};
    QFU_CHIP_ENTRY entry{};
    EFI_STATUS status = EFI_SUCCESS;
};

TEST(Finish, IsCalledOnceOnEveryPathWithASlot) {
    CountingSlot c;
    EXPECT_EQ(c.run(QFU_REQ_WIPE), "Wipe whole SPI-Flash Chip...Fail!\r\n") << "no such operation";
    c.run(0);
    c.run(QFU_REQ_SECTOR_ERASE | QFU_REQ_ADDRESS);
    EXPECT_EQ(c.status, EFI_INVALID_PARAMETER);
    c.slot.chip = nullptr;
    EXPECT_EQ(c.run(QFU_REQ_WIPE), "No support dev inteface...\r\n");
    EXPECT_EQ(c.status, EFI_NO_MEDIA);
    EXPECT_EQ(CountingSlot::finished, 4U);
    c.adapter.current_slot = nullptr;
    c.run(QFU_REQ_WIPE);
    EXPECT_EQ(CountingSlot::finished, 4U);
}

TEST(AbsentOperations, AreReportedOrLeftOut) {
    CountingSlot c;
    c.lab.write_file("image.bin", "abc");
    c.context.file = qfu_fopen("image.bin", "r");
    c.context.file_mode = QFU_FILE_MODE_IMAGE;
    c.context.file_size = 3;
    EXPECT_EQ(c.run(QFU_REQ_ADDRESS),
              kBlankOnConsole + "\r\nNo found any SPI Flash dev...1438\r\n" + kBlankOnConsole +
                  "\rWrite address 00000000\r\n\r\nWrite file is successful!!\r\n");
    c.entry.whole_size = 0;
    EXPECT_EQ(c.run(QFU_REQ_ADDRESS),
              "No Flash device!!\r\nAddress(0x0) + File Size(0x3) > Flash Size(0x0)\r\n");
    EXPECT_EQ(c.status, EFI_NO_MEDIA);
    c.slot.chip = nullptr;
    Bytes block(4);
    EXPECT_EQ(qfu_write_block(c.adapter, 0, block), -1);
    EXPECT_EQ(qfu_read_block(c.adapter, 0, block), -1);
    EXPECT_EQ(c.lab.printed(), "\r\nNo found any SPI Flash dev...1512\r\n"
                               "\r\nNo found any SPI Flash dev...1551\r\n");
    c.adapter.current_slot = nullptr;
    EXPECT_EQ(qfu_write_block(c.adapter, 0, block), -1);
    EXPECT_EQ(qfu_read_block(c.adapter, 0, block), -1);
    EXPECT_EQ(c.lab.printed(), "");
}

TEST(Verify, AReadThatFailsPassesTheBlock) {
    CountingSlot c;
    c.slot.read = [](QFU_ADAPTER&, std::uint32_t, std::uint8_t*, std::uint32_t) {
        return QFU_FAILED;
    };
    EXPECT_EQ(qfu_write_block(c.adapter, 0, Bytes(40)), 0);
    EXPECT_EQ(c.lab.printed(), "read data fail....");
}

TEST(Cost, NoAccessIsMadeBeyondTheOnesThatAByteNeeds) {
    for (const auto& [kind, per_byte, per_dumped_byte] :
         {std::tuple(1, 26U, 2U), std::tuple(4, 13U, 1U)}) {
        lab::Probed p(kind);
        QFU_ADAPTER& adapter = p.discover();
        const Bytes block = lab::pattern(4096);
        const std::uint64_t start = p.lab.machine().accesses();
        EXPECT_EQ(qfu_write_block(adapter, 0, block), 0);
        const std::uint64_t programmed = p.lab.machine().accesses();
        EXPECT_EQ(programmed - start, per_byte * 4096);
        Bytes read(4096);
        EXPECT_EQ(qfu_read_block(adapter, 0, read), 0);
        EXPECT_EQ(p.lab.machine().accesses() - programmed, per_dumped_byte * 4096);
        EXPECT_EQ(read, block);
    }
}

TEST(Cost, NorTakesTwoAccessesAWordBesideTheStartOfEachPiece) {
    constexpr std::uint32_t kPieces = 4096 / 32;
    constexpr std::uint32_t kWords = 4096 / 2;
    constexpr std::uint32_t kDump = kPieces * 5 + kWords * 2;
    // Window; unlock bypass; each word two cycles, a command and its end; bypass reset.
    constexpr std::uint32_t kProgram = 1 + (6 + 1 + 3) + kWords * (4 + 1 + 3) + (4 + 1 + 3);
    lab::Probed p(2);
    p.lab.nor_chip(p.lab.machine().adapter(0), 0x257E00EC, emulator::kNeverBusy);
    QFU_ADAPTER& adapter = p.discover();
    const Bytes block = lab::pattern(4096);
    const std::uint64_t start = p.lab.machine().accesses();
    EXPECT_EQ(qfu_write_block(adapter, 0, block), 0);
    const std::uint64_t programmed = p.lab.machine().accesses();
    EXPECT_EQ(programmed - start, kProgram + kDump);
    Bytes read(4096);
    EXPECT_EQ(qfu_read_block(adapter, 0, read), 0);
    EXPECT_EQ(p.lab.machine().accesses() - programmed, kDump);
    EXPECT_EQ(read, block);
}

TEST(NorAdapter, ProgramsVerifiesDumpsErasesAndWipes) {
    Lab lab;
    auto& chip = lab.nor_chip(lab.adapter(0xC703), 0x257E00EC);
    lab::fill(chip.contents(), 0);
    const std::string found = "\nNo found any SPI Flash dev...1327\n";
    const auto erased = [](const char* block) {
        return "\r" + std::string(56, ' ') + "\rErase block " + block;
    };
    const Bytes image = lab::pattern(4099);
    lab.write_file("image.bin", image);
    EXPECT_EQ(lab.run("-wbf image.bin -addr 0x3ef800 -y").text(),
              ">>The file name is image.bin and its size is 4099.\n" + found + kBlank +
                  erased("45") + erased("70") + kBlank +
                  "\rWrite address 003ef800\rWrite address 003f0800\n"
                  "\nWrite file is successful!!\n");
    EXPECT_EQ(lab.run("-rfb dump.bin -addr 0x3ef800 -sz 4099").text(),
              found + kBlank +
                  "\rRead address 003ef800\rRead address 003f0800\n"
                  "\nRead file is successful!!\n");
    EXPECT_EQ(lab.read_file("dump.bin"), image);
    EXPECT_EQ(chip.contents()[0x3F0803], 0xFF) << "beside the odd end";
    EXPECT_EQ(chip.contents()[0x3F2000], 0) << "the next block";
    EXPECT_EQ(lab.run("-se -addr 0x2000 -sz 1 -y").text(), found + kBlank + erased("1") + "\n");
    EXPECT_EQ(std::ranges::count(chip.contents(), 0xFF) - std::ranges::count(image, 0xFF),
              0x2000 + 0x10000 + 0x2000 - 4099);
    EXPECT_EQ(lab.run("-wpa -y").text(), found + "Wipe whole SPI-Flash Chip...Ok!\n");
    EXPECT_EQ(std::ranges::count(chip.contents(), 0xFF), 0x400000);
}

TEST(NorAdapter, ShowsTheWordThatDoesNotVerify) {
    Lab lab;
    auto& chip = lab.nor_chip(lab.adapter(0xC703), 0x257E00EC);
    chip.faults().add(lab::fault(FaultKind::kNotStored, Operation::kProgram, 2));
    lab.write_file("image.bin", "ABCD");
    const std::string text = lab.run("-wbf image.bin -addr 0 -y").text();
    EXPECT_NE(text.find("\nTarget(0x0) Data=> \n"), std::string::npos);
    EXPECT_NE(text.find("41 42 FF FF"), std::string::npos);
    EXPECT_TRUE(text.ends_with("\nWrite file is fail!!\n\n"));
}

TEST(BothChips, AreListedAndServedByChipSelect) {
    Lab lab;
    auto& adapter = lab.adapter(0xC704);
    auto& nor = lab.nor_chip(adapter, 0x22FD0020);
    auto& spi = lab.chip(adapter, "W25X40");
    const std::string listed = lab.run("-l").text();
    EXPECT_TRUE(listed.ends_with("    cs0:NOR FLASH Chip Whole Size=800000, ID[22FD0020].\n"
                                 "    cs1:SPI FLASH Chip Whole Size=80000, ID[EF 30 13].\n"));
    lab.write_file("image.bin", "AB");
    lab.run("-wbf image.bin -addr 0 -y");
    EXPECT_EQ(nor.contents()[0], 'A') << "the default";
    EXPECT_EQ(spi.contents()[0], 0xFF);
    lab.run("-wbf image.bin -addr 4 -y -csid 1");
    EXPECT_EQ(nor.contents()[4], 0xFF);
    EXPECT_EQ(spi.contents()[4], 'A');
    lab.run("-wpa -y -csid 0");
    EXPECT_EQ(nor.contents()[0], 0xFF);
    EXPECT_EQ(spi.contents()[4], 'A');
}

TEST(Script, HoldsSixLinesAboutTheNamedAdapterAndItsSelectedChip) {
    Lab lab;
    lab.chip(lab.adapter_at({0, 2, 0}, 0xC709, 0x1E5D, 0x02), "W25Q128");
    auto& both = lab.adapter_at({0, 3, 0}, 0xC703, 0x1E5D, 0xA1);
    lab.nor_chip(both, 0x257E00EC);
    lab.chip(both, "W25X40");
    const auto script = [&](const std::string& options) {
        EXPECT_EQ(lab.run("-getparm p.nsh " + options).status, EFI_SUCCESS);
        return lab.read_text("p.nsh");
    };
    EXPECT_EQ(script("-adid 0"), "echo -off\r\nset ADCount 2\r\nset DevId C703\r\nset RevId A1\r\n"
                                 "set FlashSize 0x400000\r\necho -on\r\n");
    EXPECT_NE(script("-adid 0 -csid 1").find("set FlashSize 0x80000\r\n"), std::string::npos);
    const std::string second = "echo -off\r\nset ADCount 2\r\nset DevId C709\r\nset RevId 2\r\n"
                               "set FlashSize 0x1000000\r\necho -on\r\n";
    EXPECT_EQ(script("-adid 1"), second);
    EXPECT_EQ(script("-adid 1"), second) << "one script, not two";
    EXPECT_NE(script("-adid ALL").find("set DevId C703"), std::string::npos);
    EXPECT_NE(script("-adid 0 -cdid c709").find("set ADCount 1\r\nset DevId C709"),
              std::string::npos);
}

TEST(Script, StaysEmptyWhenItIsForNoAdapterOrAdapterWithoutChip) {
    Lab lab;
    lab.kind(1);
    EXPECT_EQ(lab.run("-getparm p.nsh").text(), "");
    EXPECT_EQ(lab.read_text("p.nsh"), "");
    EXPECT_EQ(lab.run("-getparm p.nsh -adid 1").text(), "");
    EXPECT_EQ(lab.read_text("p.nsh"), "");
    EXPECT_EQ(lab.run("-getparm p.nsh -adid 0 -csid 0").text(), "No support dev inteface...\n");
    EXPECT_EQ(lab.read_text("p.nsh"), "");
}

TEST(Break, EndsATransferWithoutAMessage) {
    Lab lab;
    auto& chip = lab.kind(4);
    lab.write_file("image.bin", lab::pattern(3 * 4096));
    lab.run("-wbf image.bin -addr 0 -y");
    const std::uint64_t all = lab.faults().break_query.calls();
    lab::fill(chip.contents(), 0xFF);
    // Break in the verification of the second block.
    lab.faults().break_query.fail(2 * all - 200);
    const std::string text = lab.run("-wbf image.bin -addr 0 -y").text();
    EXPECT_TRUE(text.ends_with("\rWrite address 00000000\rWrite address 00001000\n") ||
                text.ends_with("\rWrite address 00000000\n"))
        << text;
    EXPECT_EQ(lab::pattern(4096), stored(chip, 0, 4096));
}

TEST(Break, HidesNoMismatchThatCameBeforeIt) {
    Lab lab;
    auto& chip = lab.kind(4);
    chip.faults().add(lab::fault(FaultKind::kNotStored, Operation::kProgram));
    lab.write_file("image.bin", "A");
    lab.firmware().terminal().on_output([&](std::string_view text) {
        if (text.find("Source(") != text.npos) {
            lab.firmware().break_command();
        }
    });
    EXPECT_TRUE(
        lab.run("-wbf image.bin -addr 0 -y").text().ends_with("\nWrite file is fail!!\n\n"));
}

TEST(Break, ADumpHoldsNothingThatWasNotRead) {
    Lab lab;
    auto& chip = lab.kind(4);
    std::ranges::copy(lab::pattern(0x80000), chip.contents().begin());
    lab.run("-rfb dump.bin -addr 0 -sz 0x4000");
    const std::uint64_t all = lab.faults().break_query.calls();
    lab.faults().break_query.fail(2 * all - 100);
    EXPECT_EQ(lab.run("-rfb dump.bin -addr 0 -sz 0x4000").text().find("successful"),
              std::string::npos);
    const Bytes dump = lab.read_file("dump.bin");
    EXPECT_LT(dump.size(), 0x4000U);
    EXPECT_EQ(dump, stored(chip, 0, dump.size()));
}

} // namespace
