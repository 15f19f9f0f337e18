#include "help.h"

#include "context.h"
#include "lab.h"
#include "phy_test.h"

#include <gtest/gtest.h>

namespace {

using lab::Lab;

TEST(Help, IsPrintedForEachOfItsOptionsAlone) {
    Lab lab;
    const std::string text = lab.run("-help").text();
    EXPECT_TRUE(text.starts_with("qfu: help information,\n\n-help:   help.\n-?:       help.\n"));
    EXPECT_TRUE(text.ends_with("    \\>qfu -se -addr 0 -wbf image.bin -y\n\n"
                               "process_file_fun() has warning!!(3)\n"));
    EXPECT_EQ(lab.run("-?").text(), text);
    EXPECT_EQ(lab.run("-h").text(), text);
    EXPECT_EQ(lab.run("-h").status, EFI_UNSUPPORTED);
}

TEST(Help, IsPagedWithBp) {
    Lab lab;
    const auto run = lab.run("-bp -help", "  ");
    EXPECT_NE(run.console.find("examples"), std::string::npos);
    EXPECT_EQ(lab.firmware().terminal().keys_left(), 1U) << "37 lines stop once";
}

TEST(Help, BesideAnotherOptionIsOnlyAFlag) {
    Lab lab;
    lab.remove_chip_list();
    const std::string text = lab.run("-help -y").text();
    EXPECT_EQ(text, "Error line 1605. The file spilist.bin did not open.\n"
                    "The spilist.bin file can't open.\nprocess_file_fun() has warning!!(2)\n");
}

TEST(CommandList, WinsOverEverythingAndIsNotPaged) {
    Lab lab;
    const auto run = lab.run("-addr nonsense -bp -h -cmds");
    EXPECT_EQ(run.text(),
              "COMMAND     BRIEF DESCRIPTION\n"
              "-----------------------------------------------------------------\n"
              "     -help   :Get brief help for all commands.\n"
              "  -phytest   :Test phy(get an Eye Diagram)of current adapter by the given phy id "
              "and rate.\n\nprocess_file_fun() has warning!!(3)\n");
    EXPECT_EQ(run.status, EFI_UNSUPPORTED);
}

TEST(PhyUsage, IsCutByTheConsoleUnlessItIsPaged) {
    Lab lab;
    lab.kind(1);
    std::string whole = QFU_PHY_USAGE;
    for (std::size_t at = 0; (at = whole.find('\n', at)) != whole.npos; at += 2) {
        whole.insert(at, "\r");
    }
    const std::string cut = lab.run("-phytest -h -y").console;
    EXPECT_TRUE(cut.ends_with("doPhyTest()!!\r\n" + whole.substr(0, 320)));
    const std::string paged = lab.run("-phytest -h -y -bp").console;
    EXPECT_TRUE(paged.ends_with("doPhyTest()!!\r\n" + whole));
}

TEST(HelpCommand, DescribesItselfOrListsTheCommands) {
    Lab lab;
    lab.attach();
    QFU_CONTEXT context{};
    QFU_ADAPTER adapter{};
    adapter.context = &context;
    context.argc = 1;
    EXPECT_EQ(qfu_help_command(adapter), 0);
    EXPECT_EQ(lab.printed(),
              "COMMAND     BRIEF DESCRIPTION\r\n"
              "-----------------------------------------------------------------\r\n"
              "-help\t   :Get brief help for all commands.\r\n\r\n"
              "-phytest\t   :Test phy(get an Eye Diagram)of current adapter by the given phy id "
              "and rate.\r\n\r\n\r\n");
    context.argc = 2;
    EXPECT_EQ(qfu_help_command(adapter), 0);
    EXPECT_EQ(
        lab.printed(),
        "Description   :Get brief help for all commands.\r\n"
        "\r\nhelp [<command list>]\r\n\r\nOptions:\r\n"
        "    <command list>display specified commands' help page \r\n"
        "    If no option specified, brief description on each command is displayed.\r\n\r\n");
}

TEST(Commands, CarryTheSizeOfTheirNames) {
    for (const QFU_COMMAND_ENTRY& command : qfu_commands()) {
        EXPECT_EQ(command.name_size, std::string(command.name).size() + 1);
    }
}

} // namespace
