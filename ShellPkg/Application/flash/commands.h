// The commands, each from a chosen chip to the outcome of the run.
#pragma once

#include "backup.h"
#include "outcome.h"
#include "record.h"
#include "request.h"

namespace flash {

/// What a command works with.
struct Task {
    const Request* request;
    const Adapters* adapters;
    Choice choice;
    const Chip* chip;   ///< null for a chip that is not in the list
    Addresses range;    ///< of the chip
    const Image* image; ///< of the request's file; null for commands that read none
    Pieces* pieces;
};

Outcome write(const Task& task);
Outcome erase(const Task& task);

/// @param record  what the text file of the saved range says
Outcome restore(const Task& task, const Record& record);

Outcome verify(const Task& task);
Outcome backup(const Task& task);
Outcome blank(const Task& task);

/// Prints what a chip answers, known or not.
Outcome info(const Task& task);

} // namespace flash
