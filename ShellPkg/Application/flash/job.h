// Jobs: all command lines of a file over the adapters of a machine that nobody watches.
#pragma once

#include "adapters.h"
#include "job_file.h"

namespace flash {

/// Checks everything, and when all of it can be carried out runs each line over its adapters. Says
/// on the console and in "results.txt" what came of it.
/// @param program  the program's own name as the shell passes it
/// @param at_end   receives what is to happen after the last line
/// @returns done, failed, or refused when nothing was changed
Outcome run_job(const platform::FileName& file, const CHAR16* program, Adapters& adapters,
                AtEnd& at_end);

/// Does what a job wants done at its end.
void leave(AtEnd at_end);

} // namespace flash
