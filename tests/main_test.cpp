// What no session can show of the program's start: the shell takes some of it, and some of it
// nothing calls.
#include "qfu/main.h"

#include "lab.h"
#include "qfu/context.h"
#include "qfu/help.h"
#include "qfu/platform/shell.h"

#include <gtest/gtest.h>

namespace {

using lab::Lab;

TEST(Arguments, KeepTheLowByteOfEachCharacter) {
    Lab lab;
    lab.attach();
    const CHAR16 name[] = {0x0171, 0x0266, 'u', 0};
    const CHAR16 option[] = {'-', 'c', 'm', 'd', 's', 0};
    const CHAR16* const argv[] = {name, option};
    EXPECT_EQ(qfu_main(2, argv), EFI_UNSUPPORTED);
    EXPECT_EQ(lab.printed().substr(0, 10), "[0]: qfu\r\n");
    EXPECT_EQ(qfu_main(0, nullptr), EFI_SUCCESS);
    EXPECT_EQ(lab.printed(), "");
}

TEST(Break, IsAskedOfTheOlderShellTooAndRemembered) {
    Lab lab;
    lab.attach(emulator::Shell::kOlder);
    EXPECT_FALSE(platform::break_requested());
    lab.firmware().break_command();
    EXPECT_TRUE(platform::break_requested());
    EXPECT_TRUE(platform::break_requested()) << "the shell forgets a break, the program does not";
}

TEST(Help, IsPrintedForAQuestionMarkThatTheShellLetsThrough) {
    Lab lab;
    const std::string help = lab.run("-h").console;
    EXPECT_EQ(lab.run("-?").console, std::string(help).replace(help.find("-h"), 2, "-?"));
}

TEST(HelpCommand, DescribesItself) {
    Lab lab;
    lab.attach();
    QFU_CONTEXT context{};
    QFU_ADAPTER adapter{};
    adapter.context = &context;
    context.argc = 2;
    EXPECT_EQ(qfu_help_command(adapter), 0);
    EXPECT_EQ(
        lab.printed(),
        "Description   :Get brief help for all commands.\r\n"
        "\r\nhelp [<command list>]\r\n\r\nOptions:\r\n"
        "    <command list>display specified commands' help page \r\n"
        "    If no option specified, brief description on each command is displayed.\r\n\r\n");
}

} // namespace
