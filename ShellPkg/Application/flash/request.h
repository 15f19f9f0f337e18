// The command line: what is asked for.
#pragma once

#include "outcome.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace flash {

enum class Command : std::uint8_t { LIST, WRITE, VERIFY, BACKUP, RESTORE, ERASE, BLANK, INFO, JOB };

/// What one command line asks for. A field whose option was not given is 0 or null.
struct Request {
    Command command;
    std::uint32_t given; ///< what was given, as `has` takes it
    platform::FileName file;
    platform::FileName old;
    std::uint32_t address;
    std::uint32_t size;
    std::uint32_t times;
    std::uint32_t count;
    std::uint32_t adapter;
    std::uint32_t chip_select;
    std::uint16_t vendor;
    std::uint16_t device;
    std::uint8_t bus;
    std::uint8_t dev;
    QFU_SHA256::Sum sum;

    bool has(std::uint32_t option) const { return (given & option) != 0; }
};

/// Options and the file, as `Request::given` has them.
inline constexpr std::uint32_t ADDRESS = 0x1;
inline constexpr std::uint32_t SIZE = 0x2;
inline constexpr std::uint32_t ADAPTER = 0x4;
inline constexpr std::uint32_t CHIP_SELECT = 0x8;
inline constexpr std::uint32_t MODEL = 0x10;
inline constexpr std::uint32_t PLACE = 0x20;
inline constexpr std::uint32_t SUM = 0x40;
inline constexpr std::uint32_t OLD = 0x80;
inline constexpr std::uint32_t ALL = 0x100;
inline constexpr std::uint32_t YES = 0x200;
inline constexpr std::uint32_t TIMES = 0x400;
inline constexpr std::uint32_t FILE = 0x800;
inline constexpr std::uint32_t COUNT = 0x1000;
inline constexpr std::uint32_t ANY_MODEL = 0x2000;
inline constexpr std::uint32_t IN_JOB = 0x4000; ///< the request is a line of a job

/// What became of a command line.
enum class Parsed : std::uint8_t { REQUEST, HELP, COMMAND_HELP, VERSION, REFUSED };

/// As it is typed.
std::string_view command_name(Command command);

/// True when an argument is this word.
bool is(const CHAR16* argument, std::string_view word);

/// Reads the arguments that follow the program's name. With IN_JOB given before, they are a line of
/// a job.
/// When it is refused, `reason` says what is wrong and what is allowed.
Parsed parse(std::span<CHAR16* const> arguments, Request& request);

/// Prints what the program can do.
void print_help();

/// Prints what one command does, and its options.
void print_help(Command command);

/// Reads a number, decimal or 0x and hexadecimal, of at most 32 bits.
/// @returns false when `text` is anything else
bool parse_number(const CHAR16* text, std::uint32_t& number);

} // namespace flash
