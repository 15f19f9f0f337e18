// The program's help text and its list of commands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct QFU_ADAPTER;

/// One command of the command list.
struct QFU_COMMAND_ENTRY {
    const char* name;
    std::size_t name_size; ///< terminating zero included
    std::uint8_t (*handler)(QFU_ADAPTER&);
    const char* usage;
    const char* brief;
};

/// The commands, in the order in which they are listed.
std::span<const QFU_COMMAND_ENTRY> qfu_commands();

/// The parts of the help text, each printed by itself.
std::span<const char* const> qfu_help_texts();

/// Prints the help text.
void qfu_print_help();

/// Prints the list of commands.
void qfu_print_command_list();

/// Handler of the help command: prints the commands when the run has no further argument, else the
/// help command's own description. @returns 0
std::uint8_t qfu_help_command(QFU_ADAPTER& adapter);
