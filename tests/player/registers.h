// Register accesses as sessions show them: all of one cycle on one line.
#pragma once

#include "run.h"

namespace session {

/// Puts the accesses of each cycle on one line: a write that follows a read starts a new line.
/// "A8:06000004<00012000" is a write through an index register and its data register.
/// @param accesses  as the journal has them
/// @param named     keeps the names of adapters
Lines register_lines(Lines accesses, bool named);

} // namespace session
