#include "help.h"

#include "context.h"
#include "lab.h"

#include <gtest/gtest.h>

namespace {

using lab::Lab;

TEST(Help, IsPagedWithBp) {
    Lab lab;
    const auto run = lab.run("-bp -help", "  ");
    EXPECT_NE(run.console.find("examples"), std::string::npos);
    EXPECT_EQ(lab.firmware().terminal().keys_left(), 1U) << "37 lines stop once";
}

TEST(Help, IsPrintedForAQuestionMarkThatTheShellLetsThrough) {
    Lab lab;
    EXPECT_EQ(lab.run("-?").text(), lab.run("-h").text());
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
