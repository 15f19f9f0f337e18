// The chip list of a run.
#pragma once

#include "outcome.h"

struct QFU_CONTEXT;

namespace flash {

/// Loads "spilist.bin" from the current directory into the context, or the one beside the program
/// when there is none.
/// @param program  the program's own name as the shell passes it, with its path
/// @returns refused when there is no list, or when it is not valid; the context then has none
Outcome load_chip_list(const CHAR16* program, QFU_CONTEXT& context);

} // namespace flash
