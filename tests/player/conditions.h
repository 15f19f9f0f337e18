// What must hold after a command: the lines below its output.
#pragma once

#include "run.h"

#include <optional>

namespace session {

/// Everything that a condition can ask about.
struct After {
    const Stage& stage;
    const Observation& seen;
    const Flash& flash_before; ///< of the command
    std::filesystem::path folder;
};

/// The last line of a run whose command line was refused; "= refused" stands for it and status 3.
inline constexpr std::string_view kRefusal = "process_file_fun() has warning!!(2)\r\n";
bool is_refused(const Observation& seen);

/// True for a line that states a condition.
bool is_condition(const std::string& line);

/// A condition's line as it holds: the same line when it is met, otherwise what came out.
/// Absent when nothing of the kind came out.
/// @throws support::InputError for a line that states no condition
std::optional<std::string> as_it_holds(const std::string& line, const After& after);

/// What a chip holds by a text like "@1000 = image.bin, @2000 10 = FF, rest same".
/// @param now     holds the bytes that the text does not describe
/// @param before  the bytes that are the "same"
/// @throws support::InputError
lab::Bytes described_flash(const std::string& text, std::span<const std::uint8_t> now,
                           std::span<const std::uint8_t> before,
                           const std::filesystem::path& folder);

/// The lines that must be there whether or not the session has them: status, misuse, keys.
Lines needed_lines(const Observation& seen);

} // namespace session
