// Plays session files: text that reads like the console and says what each command must show.
#pragma once

#include "run.h"

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

namespace session {

/// A session file that cannot be played. The text names file and line.
class SessionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// What came out of a session.
struct Playback {
    Lines expected; ///< the file's lines
    Lines shown;    ///< the same lines with what came out
    std::vector<Stage> stages;
};

/// A console as a session shows it. CR LF ends a line; all else is marked.
Lines as_lines(const std::string& console);

/// Prints how lines differ from what was expected of a file. @returns true when they do not
bool expect_same(const std::string& name, const Lines& expected, const Lines& shown);

/// Writes a file of lines.
void write_lines(const std::filesystem::path& file, const Lines& lines);

/// Called before each qfu command with its stage, so that a sweep can try variants in a fork.
using BeforeCommand = std::function<void(const Stage&, const Command&, emulator::VirtualClock&,
                                         const std::filesystem::path& folder)>;

/// Plays a file in this process.
/// @throws SessionError for a line that is no part of a session, and for a fault that never struck
Playback play(const std::filesystem::path& file, const BeforeCommand& before = {});

} // namespace session
