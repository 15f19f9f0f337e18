// Plays session files: text that reads like the console and says what each command must show.
#pragma once

#include "run.h"

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace session {

/// A session file that cannot be played. The text names file and line.
class SessionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// What came out of a session.
struct Playback {
    std::vector<std::string> expected; ///< the file's lines
    std::vector<std::string> shown;    ///< the same lines with what came out
    std::vector<Stage> stages;
    bool has_registers = false; ///< register accesses, which are only written by hand
};

/// Called before each qfu command with its stage, so that a sweep can try variants in a fork.
using BeforeCommand = std::function<void(const Stage&, const Command&, emulator::VirtualClock&,
                                         const std::filesystem::path& folder)>;

/// Plays a file in this process.
/// @throws SessionError for a line that is no part of a session, and for a fault that never struck
Playback play(const std::filesystem::path& file, const BeforeCommand& before = {});

} // namespace session
