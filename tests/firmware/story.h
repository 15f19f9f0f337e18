// Stories: one description of a machine, its files and what is typed, for the emulator and for a
// guest.
#pragma once

#include "guest.h"
#include "machine_file.h"

#include <filesystem>
#include <string>
#include <vector>

namespace firmware {

/// One command line of a story.
struct Step {
    std::string run;                 ///< arguments of qfu; its twin runs in process
    std::string keys;                ///< pressed while it runs
    std::string shell;               ///< a line for the guest's shell alone, instead
    std::vector<std::string> prints; ///< texts that its output must hold
};

struct Story {
    emulator::MachineDescription machine;
    Volume files;
    std::vector<Step> steps;
    std::vector<std::string> misuse; ///< texts, one of which each misuse must hold
};

/// Reads a story. @throws support::InputError with file, line and key
Story load_story(const std::filesystem::path& file);

} // namespace firmware
