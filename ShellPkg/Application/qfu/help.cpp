#include "help.h"

#include "adapter.h"
#include "console.h"
#include "context.h"
#include "phy_test.h"

namespace {

constexpr char LIST_HEADING[] = "COMMAND     BRIEF DESCRIPTION\n";
constexpr char LIST_RULE[] = "-----------------------------------------------------------------\n";
static_assert(sizeof(LIST_RULE) - 1 == 65 + 1);

constexpr QFU_COMMAND_ENTRY COMMANDS[] = {
    {"-help",    sizeof("-help"),    qfu_help_command,
     "\nhelp [<command list>]\n\n"
     "Options:\n"
     "    <command list>display specified commands' help page \n"
     "    If no option specified, brief description on each command is displayed.\n\n", "   :Get brief help for all commands.\n"},
    {"-phytest", sizeof("-phytest"), doPhyTest,        QFU_PHY_USAGE,
     "   :Test phy(get an Eye Diagram)of current adapter by the given phy id and rate.\n"                                       },
};

constexpr const char* HELP_TEXTS[] = {
    "qfu: help information,\n\n"
    "-help:   help.\n"
    "-?:       help.\n"
    "-y:       no confirmation message.\n"
    "-sz:      range used.\n"
    "-se:      sector erase\n",

    "-wbf:    input a binary file which will be writing to flash chip.\n"
    "-rfb:     output a binary file, that will dump data to a file from flash chip.\n",

    "-addr:   Starting address.\n"
    "-wpa:     wipe out whole chip.\n"
    "-adid:    adpter ID(0~n, or ALL).\n"
    "-cvid:    checking the vendor ID(0~0xxxxx).\n"
    "-cdid:    checking the device ID(0~0xxxxx).\n"
    "-csid:    Chip Select(0~n).\n",

    "-getparm:output parameters to a file(ex:-getparm 1.txt).\n",

    "-cmds:   show all supported commands.\n",

    "-bp:     display one screen at a time.\n",

    "\nexamples:\n",

    "    Write a binary file to flash chip.\n"
    "    \\>qfu -wbf image.bin -addr 0x00000000 -y\n",

    "    after check the vendor and device ID, Write a binary file to flash chip.\n"
    "    \\>qfu -cvid 0x1E5D -cdid 0xC70D -wbf image.bin -addr 0x00000000 -y\n",

    "    Read data from flash chip to a file.\n"
    "    \\>qfu -rfb bkup.bin -addr 0x00000000 -sz 0x00080000\n",

    "    Chip erase form all adapter.\n"
    "    \\>qfu -wpa -adid ALL\n",

    "    Sector erase with adapter 1.\n"
    "    \\>qfu -se -addr 0x00000000 -sz 0x20000 -adid 1 -y\n",

    "    Sector erase by file size.\n"
    "    \\>qfu -se -addr 0 -wbf image.bin -y\n\n",
};

} // namespace

std::span<const QFU_COMMAND_ENTRY> qfu_commands() {
    return COMMANDS;
}

std::span<const char* const> qfu_help_texts() {
    return HELP_TEXTS;
}

void qfu_print_help() {
    for (const char* text : HELP_TEXTS) {
        qfu_print(text);
    }
}

void qfu_print_command_list() {
    qfu_print(LIST_HEADING);
    qfu_print(LIST_RULE);
    for (const QFU_COMMAND_ENTRY& command : COMMANDS) {
        qfu_print("%10.10s%s", command.name, command.brief);
    }
    qfu_print("\n");
}

std::uint8_t qfu_help_command(QFU_ADAPTER& adapter) {
    if (adapter.context->argc >= 2) {
        qfu_print("Description");
        qfu_print("%s", COMMANDS[0].brief);
        qfu_print("%s", COMMANDS[0].usage);
        return 0;
    }
    qfu_print(LIST_HEADING);
    qfu_print(LIST_RULE);
    for (const QFU_COMMAND_ENTRY& command : COMMANDS) {
        qfu_print("%s\t%s\n", command.name, command.brief);
    }
    qfu_print("\n");
    return 0;
}
