// What the shell that started the program tells it: its arguments and the user's break.
#pragma once

#include "efi.h"

#include <cstddef>

namespace platform {

/// The shell's argument vector; the strings belong to the shell and end with a zero character.
struct Arguments {
    std::size_t count;
    CHAR16** values;
};

/// Asks the image's shell parameters for the arguments, or the older shell's interface.
/// @returns false when the image was not started by a shell
bool arguments(Arguments& out);

/// True once the user has broken the running command (Ctrl-C), and from then on to the end of the
/// run: the shell's event forgets a break as soon as it has been read. False while a BreakShield
/// exists.
bool break_requested();

/// Hides a break while it exists, so that a step on the chip runs to its end. Nobody asks the
/// shell's event meanwhile, which keeps the break for the next query.
class BreakShield {
  public:
    BreakShield();
    BreakShield(const BreakShield&) = delete;
    BreakShield& operator=(const BreakShield&) = delete;
    ~BreakShield();
};

/// True once `break_requested` has seen a break. Asks nobody, so that what failed for another
/// reason is not excused by a break that came later.
bool break_seen();

/// The text of a shell variable, the shell's own; null when there is none.
/// @param name  of at most 15 characters
const CHAR16* shell_variable(const char* name);

} // namespace platform
