// One command of a session: what it runs on, and what it shows.
#pragma once

#include "machine/machine_file.h"
#include "tests/lab.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace session {

using Lines = std::vector<std::string>;

/// Files of the shell's volume by path; folders end with a slash and have no bytes.
using Files = std::map<std::string, lab::Bytes>;

/// One command line of a session.
struct Command {
    std::string line; ///< as it is typed, without the prompt
    Lines words;      ///< of the line
    std::string keys; ///< pressed while it runs

    bool is_qfu() const { return words[0] == "qfu"; }
    bool prints() const { return is_qfu() || words[0] == "type"; }
};

/// What a command showed.
struct Observation {
    std::string console;
    unsigned status = 0; ///< the shell's exit status
    std::uint64_t ns = 0;
    std::map<emulator::Operation, std::uint64_t> operations; ///< of all chips
    Lines misuses;
    bool starved = false; ///< it asked for a key and nobody pressed one
    std::size_t unread_keys = 0;
    std::vector<std::uint64_t> calls; ///< of the firmware, in the order of kNamedCalls
    Lines cycles;                     ///< as the log has them, when somebody wants them
    Lines registers;                  ///< the same, all accesses of a cycle on one line
};

/// What chips hold, by their places: "0.cs0" is the first adapter's NOR chip, "0.cs1" its SPI chip.
using Flash = std::map<std::string, lab::Bytes>;

/// One machine of a session and what happened on it.
struct Stage {
    emulator::MachineDescription description;
    std::shared_ptr<emulator::Machine> machine;
    emulator::Shell shell = emulator::Shell::kCurrent;
    bool root_bridge = true;
    std::string process_only; ///< why a guest cannot play it; empty when one can
    Files files;              ///< before the first command
    Flash flash;              ///< before the first command
    std::vector<Command> commands;
    std::vector<Observation> observations;
    Files files_after;
    Flash flash_after;
};

/// The chips of a machine by their places.
std::map<std::string, std::span<std::uint8_t>> chips_of(const emulator::Machine& machine);

/// Copies of what the chips hold.
Flash contents_of(const emulator::Machine& machine);

/// What `run` listens to besides the console.
struct Listen {
    bool cycles = false;
    bool registers = false;
};

/// Carries out a command on a stage's machine and the files in a folder.
/// @param prepare  called with the firmware before the program starts
Observation run(const Stage& stage, const Command& command, emulator::VirtualClock& clock,
                const std::filesystem::path& folder, Listen listen = {},
                const std::function<void(emulator::Firmware&)>& prepare = {});

Files read_files(const std::filesystem::path& folder);

/// The bytes of a volume's file, with letters in any case.
std::optional<lab::Bytes> find_file(const std::filesystem::path& folder, const std::string& name);

} // namespace session
