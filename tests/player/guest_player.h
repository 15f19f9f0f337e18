// Plays sessions under real firmware and its shell.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace session {

/// Plays each file in this process and in guests, and prints what differs: consoles, statuses,
/// files, flash contents, misuse, and the cycles on the flash bus.
/// @param platform  the name of one in guest.h
/// @returns true when nothing differs
/// @throws SessionError for a file that a guest cannot play
bool play_in_guests(const std::string& platform, const std::vector<std::filesystem::path>& files);

} // namespace session
