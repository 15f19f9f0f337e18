// Plays session files: text that reads like the console and says what each command must show.
#pragma once

#include "machine/machine_file.h"
#include "tests/lab.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace session {

using Lines = std::vector<std::string>;

/// One command line of a session.
struct Command {
    std::string line;       ///< as it is typed, without the prompt
    Lines words;            ///< of the line
    std::string keys;       ///< pressed while it runs
    std::string early_keys; ///< pressed before it starts

    bool is_program() const { return words[0] == "qfu" || words[0] == "flash"; }
    bool prints() const { return is_program() || words[0] == "type"; }
};

/// The last line of a run whose command line was refused; "= refused" stands for it and status 3.
inline constexpr std::string_view kRefusal = "process_file_fun() has warning!!(2)\r\n";

/// How often each operation was done.
using Counts = std::array<std::uint64_t, emulator::kOperationCount>;

/// What a command showed.
struct Observation {
    std::string console;
    unsigned status = 0; ///< the shell's exit status
    std::uint64_t ns = 0;
    Counts operations{}; ///< of all chips
    Lines misuses;
    bool starved = false; ///< it asked for a key and nobody pressed one
    std::size_t unread_keys = 0;
    std::array<std::uint64_t, emulator::kNamedCalls.size()> calls{}; ///< of the firmware
    Lines cycles;                                                    ///< as the log has them
    Lines registers;                                                 ///< as the log has them

    bool refused() const { return status == 3 && console.ends_with(kRefusal); }
};

/// What chips hold, by their places: "0.cs0" is the first adapter's NOR chip, "0.cs1" its SPI chip.
using Flash = std::map<std::string, lab::Bytes>;

/// One machine of a session and what happened on it.
struct Stage {
    emulator::MachineDescription description;
    std::shared_ptr<emulator::Machine> machine; ///< none before the first command
    emulator::Shell shell = emulator::Shell::kCurrent;
    bool root_bridge = true;
    std::map<std::string, std::string> variables; ///< of the shell
    lab::Files files;                             ///< before the first command
    Flash flash;                                  ///< before the first command
    std::vector<Command> commands;
    std::vector<Observation> observations;
    lab::Files files_after;
    Flash flash_after;
};

/// The chips of a machine by their places.
std::map<std::string, std::span<std::uint8_t>> chips_of(const emulator::Machine& machine);

/// Copies of what the chips hold.
Flash contents_of(const emulator::Machine& machine);

/// Carries out a command on a stage's machine and the files in a folder.
/// @param log      whether to keep the cycles and the register accesses
/// @param prepare  called with the firmware before the program starts
Observation run(const Stage& stage, const Command& command, emulator::VirtualClock& clock,
                const std::filesystem::path& folder, bool log = false,
                const std::function<void(emulator::Firmware&)>& prepare = {});

/// What came out of a session.
struct Playback {
    Lines expected; ///< the file's lines, with those that texts stand for
    Lines shown;    ///< the same lines with what came out
    std::vector<Stage> stages;
};

/// A console as a session shows it. CR LF ends a line; all else is marked.
Lines as_lines(const std::string& console);

/// Prints how lines differ from what was expected of a file. @returns true when they do not
bool expect_same(const std::string& name, const Lines& expected, const Lines& shown);

/// Called before each run of a program with its stage, so that a sweep can try variants in a fork.
using BeforeCommand = std::function<void(const Stage&, const Command&, emulator::VirtualClock&,
                                         const std::filesystem::path& folder)>;

/// Plays a file in this process.
/// @throws support::InputError for a line that is no part of a session, and for a fault that never
/// struck; the text names file and line
Playback play(const std::filesystem::path& file, const BeforeCommand& before = {});

} // namespace session
