#include "main.h"

#include "lab.h"
#include "platform/shell.h"

#include <gtest/gtest.h>

namespace {

using emulator::Shell;
using lab::Lab;
using lab::Outcome;

std::string listed(const std::string& console) {
    std::string lines;
    std::size_t at = 0;
    while (console.compare(at, 1, "[") == 0) {
        const std::size_t end = console.find('\n', at);
        lines += console.substr(at, end - at - 1) + "\n";
        at = end + 1;
    }
    return lines;
}

TEST(Arguments, AreListedOneByOne) {
    Lab lab;
    const Outcome run = lab.run({"-cmds", "", "x"});
    EXPECT_EQ(listed(run.console), "[0]: FS0:\\qfu.EFI\n[1]: -cmds\n[2]: \n[3]: x\n");
}

TEST(Arguments, BehindTheFiftiethAreDropped) {
    Lab lab;
    std::vector<std::string> arguments(50, "a");
    arguments[48] = "-cmds"; // argument 49, the last that counts
    const Outcome run = lab.run(arguments);
    EXPECT_NE(run.console.find("[49]: -cmds\r\n"), std::string::npos);
    EXPECT_EQ(run.console.find("[50]"), std::string::npos);
    EXPECT_NE(run.console.find("COMMAND"), std::string::npos);

    arguments[48] = "a";
    arguments[49] = "-cmds";
    EXPECT_EQ(lab.run(arguments).console.find("COMMAND"), std::string::npos);
}

TEST(Arguments, BeyondTheTextBudgetAreEmptyAndThenAbsent) {
    Lab lab;
    // The command's name has 12 characters, so 500 fill the budget of 512 to the brim.
    const Outcome fits = lab.run({std::string(500, 'a'), ""});
    EXPECT_NE(fits.console.find("[2]: \r\n"), std::string::npos);

    const Outcome crosses = lab.run({std::string(500, 'a'), "b", "-cmds", "c"});
    EXPECT_NE(crosses.console.find("[2]: \r\n[3]: <NULL>\r\n[4]: <NULL>\r\n"), std::string::npos);
    EXPECT_EQ(crosses.console.find("COMMAND"), std::string::npos) << "-cmds must not be seen";
}

TEST(Arguments, KeepTheLowByteOfEachCharacter) {
    Lab lab;
    lab.attach();
    const CHAR16 name[] = {0x0171, 0x0266, 'u', 0};
    const CHAR16 option[] = {'-', 'c', 'm', 'd', 's', 0};
    const CHAR16* const argv[] = {name, option};
    EXPECT_EQ(qfu_main(2, argv), EFI_UNSUPPORTED);
    EXPECT_EQ(lab.printed().substr(0, 10), "[0]: qfu\r\n");
}

TEST(Arguments, ComeFromTheOlderShellInterfaceToo) {
    Lab lab;
    lab.use_shell(Shell::kNoParameters);
    lab.kind(1);
    const Outcome run = lab.run("-l");
    EXPECT_EQ(run.status, EFI_SUCCESS);
    EXPECT_NE(run.console.find("[1]: -l\r\n"), std::string::npos);
    EXPECT_NE(run.console.find("Whole Size=80000"), std::string::npos);
}

TEST(Entry, FailsSilentlyWithoutAShell) {
    Lab lab;
    lab.use_shell(Shell::kNone);
    const Outcome run = lab.run("-l");
    EXPECT_EQ(run.status, EFI_UNSUPPORTED);
    EXPECT_EQ(run.console, "");
}

TEST(Entry, UnderTheOlderShellHelpWorksAndFilesDoNotOpen) {
    Lab lab;
    lab.use_shell(Shell::kOlder);
    EXPECT_NE(lab.run("-h").console.find("qfu: help information"), std::string::npos);
    EXPECT_EQ(lab.run("-l").text(), "Error line 1605. The file spilist.bin did not open.\n"
                                    "The spilist.bin file can't open.\n"
                                    "process_file_fun() has warning!!(2)\n");
}

TEST(Entry, AsksTheOlderShellForABreakToo) {
    Lab lab;
    lab.use_shell(Shell::kOlder);
    lab.attach();
    EXPECT_FALSE(platform::break_requested());
    lab.firmware().break_command();
    EXPECT_TRUE(platform::break_requested());
    EXPECT_TRUE(platform::break_requested()) << "the shell forgets a break, the program does not";
}

TEST(Entry, DoesNothingWithoutArguments) {
    Lab lab;
    lab.attach();
    EXPECT_EQ(qfu_main(0, nullptr), EFI_SUCCESS);
    EXPECT_EQ(lab.printed(), "");
}

TEST(Entry, ReportsMissingMemory) {
    Lab lab;
    lab.faults().pool.fail(1);
    const Outcome text = lab.run("-l");
    EXPECT_EQ(text.status, EFI_UNSUPPORTED);
    EXPECT_EQ(text.console, "*str_buffer_ptr==> resource is not enough.\r\n");

    // Two argument lines of three buffers each come between the argument text and the context.
    lab.faults().pool.fail(lab.faults().pool.calls() + 8);
    const Outcome context = lab.run("-l");
    EXPECT_EQ(context.status, EFI_UNSUPPORTED);
    EXPECT_EQ(context.text(), "Resource is not enough.[2]\nprocess_file_fun() has warning!!(15)\n");
}

TEST(Entry, StartsEveryRunWithoutPagingAndOnAnEmptyPage) {
    Lab lab;
    lab.kind(1);
    lab.run("-l -bp");
    const Outcome run = lab.run("-h");
    EXPECT_EQ(qfu_page_lines, 0U);
    EXPECT_NE(run.console.find("-se -addr 0 -wbf image.bin -y"), std::string::npos);
}

TEST(Choice, NoAdapterIsAFailure) {
    Lab lab;
    const Outcome run = lab.run("-l");
    EXPECT_EQ(run.status, EFI_UNSUPPORTED);
    EXPECT_EQ(run.text(), "\nNo Found any Adapter.\n");
}

TEST(Choice, TheOnlyAdapterRunsWhateverItsNumber) {
    Lab lab;
    auto& chip = lab.kind(1);
    chip.contents()[0] = 0;
    const Outcome run = lab.run("-wpa -y -adid 3");
    EXPECT_EQ(run.status, EFI_SUCCESS);
    EXPECT_EQ(run.text(), "Wipe whole SPI-Flash Chip...Ok!\n");
    EXPECT_EQ(chip.contents()[0], 0xFF);
}

/// Three adapters, each with a byte that a wipe clears.
struct Three {
    Lab lab;
    std::vector<emulator::SpiChip*> chips;

    Three() {
        for (const unsigned device : {0xC709U, 0xC705U, 0xC70FU}) {
            const emulator::PciAddress at{0x1A, static_cast<std::uint8_t>(0xA + chips.size()), 0};
            chips.push_back(
                &lab.chip(lab.adapter_at(at, static_cast<std::uint16_t>(device)), "W25X40"));
            chips.back()->contents()[0] = 0;
        }
    }

    /// Which adapters, in list order, have been wiped; the list goes by model: C705, C709, C70F.
    std::string wiped() const {
        std::string result;
        for (const std::size_t i : {1U, 0U, 2U}) {
            result += chips[i]->contents()[0] == 0xFF ? 'x' : '-';
        }
        return result;
    }
};

TEST(Choice, PromptsAmongSeveralAndRunsTheOneWhoseKeyIsPressed) {
    Three three;
    three.lab.press_late('1');
    const Outcome run = three.lab.run("-wpa -y");
    EXPECT_EQ(run.text(), lab::expected("choice"));
    EXPECT_EQ(three.wiped(), "-x-");
}

TEST(Choice, OtherKeysEndTheRunWithSuccess) {
    for (const auto& [keys, answer] : {std::pair("7", ""), std::pair("3", ""), std::pair("x", ""),
                                       std::pair("q", "\n"), std::pair("Q", "\n")}) {
        Three three;
        const Outcome run = three.lab.run("-wpa -y", keys);
        EXPECT_EQ(run.status, EFI_SUCCESS);
        EXPECT_TRUE(run.text().ends_with(std::string("Q: Exit):") + answer)) << keys;
        EXPECT_EQ(three.wiped(), "---");
    }
}

TEST(Choice, AKeyWithoutACharacterChoosesTheFirst) {
    Three three;
    three.lab.firmware().terminal().press(emulator::KeyStroke{1, 0});
    EXPECT_TRUE(three.lab.run("-wpa -y").text().ends_with("0\nWipe whole SPI-Flash Chip...Ok!\n"));
    EXPECT_EQ(three.wiped(), "x--");
}

TEST(Choice, AdidNamesOneAllOrNone) {
    {
        Three three;
        EXPECT_EQ(three.lab.run("-wpa -y -adid 2").text(), "Wipe whole SPI-Flash Chip...Ok!\n");
        EXPECT_EQ(three.wiped(), "--x");
    }
    {
        Three three;
        for (const char* line : {"-wpa -y -adid 3", "-wpa -y -adid 5"}) {
            const Outcome run = three.lab.run(line);
            EXPECT_EQ(run.text(), "");
            EXPECT_EQ(run.status, EFI_SUCCESS);
        }
    }
    Three three;
    three.lab.cycles();
    three.lab.run("-wpa -y -adid ALL");
    EXPECT_EQ(three.wiped(), "xxx");
    // Erased in list order: adapters 1, 0 and 2 of the machine.
    const std::string cycles = three.lab.cycles();
    EXPECT_LT(cycles.find("1.cs1  C7"), cycles.find("0.cs1  C7"));
    EXPECT_LT(cycles.find("0.cs1  C7"), cycles.find("2.cs1  C7"));
}

TEST(Choice, AScriptForANamedAdapterComesBeforeListingAndPrompt) {
    Three three;
    three.chips[0]->contents()[0] = 0xFF;
    // Adapter 1 runs at once: its wipe wins over the script, but no listing and no prompt appear.
    const Outcome run = three.lab.run("-getparm p.nsh -adid 1 -l -wpa -y");
    EXPECT_EQ(run.text(), "Wipe whole SPI-Flash Chip...Ok!\n");
    Three all;
    all.lab.run("-getparm p.nsh -adid ALL -wpa -y");
    EXPECT_EQ(all.wiped(), "x--") << "a script is for one adapter";
}

TEST(Listing, ShowsAdaptersAndChipsAndRunsNothing) {
    Lab lab;
    lab.chip(lab.adapter_at({0x2B, 0x0A, 0}, 0xC709), "W25Q32").contents()[0] = 0;
    lab.adapter_at({0, 3, 0}, 0xC702, 0x1F7E, 0x02);
    lab.write_file("image.bin", "x");
    const Outcome run = lab.run("-l -wbf image.bin -addr 0 -y");
    EXPECT_EQ(run.status, EFI_SUCCESS);
    EXPECT_EQ(run.text(), lab::expected("listing"));
    EXPECT_EQ(lab.machine().adapter(0).spi().chip()->contents()[0], 0);
}

TEST(Listing, SaysWhenThereIsNoChip) {
    Lab lab;
    lab.adapter(0xC709);
    EXPECT_TRUE(lab.run("-l").text().ends_with("No detected any Flash Chip,\n"));
}

TEST(Status, OnlyTheParserAndDiscoveryReachTheShell) {
    Lab lab;
    auto& chip = lab.kind(1);
    chip.faults().add(lab::fault(emulator::FaultKind::kNotStored, emulator::Operation::kProgram));
    lab.write_file("image.bin", "some bytes");
    const Outcome run = lab.run("-wbf image.bin -addr 0 -y");
    EXPECT_NE(run.text().find("Write file is fail!!"), std::string::npos);
    EXPECT_EQ(run.status, EFI_SUCCESS);
    EXPECT_EQ(lab.run("-addr nonsense").status, EFI_UNSUPPORTED);
}

} // namespace
