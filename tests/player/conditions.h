// What must hold after a command: the lines below its output.
#pragma once

#include "player.h"

namespace session {

/// Everything that a condition can ask about.
struct After {
    const Observation& seen;
    const Flash& before; ///< the command
    const Flash& now;
    const std::filesystem::path& folder;
};

/// True for a line that states a condition.
bool is_condition(const std::string& line);

/// The conditions among the lines below a command, each as it holds: the same line when it is met,
/// otherwise what came out. What must never go unsaid is added: status, misuse, keys.
/// @throws support::InputError for a line that states no condition
Lines as_they_hold(std::span<const std::string> below, const After& after);

/// What a chip holds by a text like "@1000 = image.bin, @2000 10 = FF, rest same".
/// @param now     holds the bytes that the text does not describe
/// @param before  the bytes that are the "same"
/// @throws support::InputError
lab::Bytes described_flash(const std::string& text, const lab::Bytes& now, const lab::Bytes& before,
                           const std::filesystem::path& folder);

} // namespace session
