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

/// Opens the request's file, when it has one that is read, and for a restore reads its text file.
/// @param task  receives the image
Outcome open_image(Request& request, Image& image, Record& record, Task& task);

/// Chooses the chip that the request names, of the adapters that were found, and carries out the
/// command.
/// @param task  without chip and range, which it receives; the chip is gone when this returns
/// @param only_check  ends before the command, and returns none when it could be carried out
Outcome run_task(Task& task, Adapters& adapters, const Record& record, bool only_check);

/// True for commands that erase and program.
bool erases(Command command);

} // namespace flash
