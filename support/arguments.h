// The command line of a tool.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

namespace support {

/// Exit status of a tool that cannot do what it was asked for.
inline constexpr int kCannotRun = 2;

/// Reads the words after a tool's name.
/// @param cannot_run  the status after a usage error
/// @returns the exit status when the tool has to end: after its help, its version or a usage error,
///          which are printed
std::optional<int> read_arguments(CLI::App& app, std::vector<std::string> words,
                                  int cannot_run = kCannotRun);

} // namespace support
