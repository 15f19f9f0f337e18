#include "main.h"

#include "adapters.h"
#include "backup.h"
#include "chip_list.h"
#include "commands.h"
#include "job.h"
#include "qfu/console.h"
#include "qfu/platform/pool.h"
#include "qfu/platform/shell.h"
#include "qfu/platform/system.h"
#include "request.h"
#include "version.h"

namespace flash {
namespace {

constexpr EFI_STATUS NOTHING_CHANGED = 2;

bool reads_image(Command command) {
    return command == Command::WRITE || command == Command::VERIFY || command == Command::RESTORE;
}

Outcome run_command(const Task& task, const Record& record) {
    switch (task.request->command) {
    case Command::WRITE:
        return write(task);
    case Command::RESTORE:
        return restore(task, record);
    case Command::ERASE:
        return erase(task);
    case Command::VERIFY:
        return verify(task);
    case Command::BACKUP:
        return backup(task);
    default:
        return blank(task);
    }
}

} // namespace

bool erases(Command command) {
    return command == Command::WRITE || command == Command::RESTORE || command == Command::ERASE ||
           command == Command::JOB;
}

Outcome open_image(Request& request, Image& image, Record& record, Task& task) {
    if (!reads_image(request.command)) {
        return {};
    }
    task.image = &image;
    if (Outcome outcome = image.open(request.file, task.pieces->wanted)) {
        return outcome;
    }
    if (request.has(SUM) && request.sum != image.sum()) {
        return refused("@ has the SHA-256 @", {request.file, image.sum()});
    }
    if (request.command != Command::RESTORE) {
        return {};
    }
    if (Outcome outcome = read_record(request.file, record)) {
        return outcome;
    }
    request.address = record.address;
    return record.size == image.size() && record.sum == image.sum()
               ? Outcome{}
               : refused("@ is not what its text file describes", {request.file});
}

namespace {

/// The range that the request names: from its address on as many bytes as the image has, or as
/// -sz says, or the whole chip.
Outcome set_range(Task& task) {
    const Request& request = *task.request;
    const std::uint32_t chip_size = task.chip->size();
    const std::uint64_t size = task.image != nullptr ? task.image->size()
                               : request.has(SIZE)   ? request.size
                                                     : chip_size;
    task.range = {request.address, request.address + size};
    return task.range.end <= chip_size
               ? Outcome{}
               : refused("@ ends past the end of the chip, @", {task.range, Hex(chip_size - 1)});
}

} // namespace

Outcome run_task(Task& task, Adapters& adapters, const Record& record, bool only_check) {
    const Request& request = *task.request;
    if (Outcome outcome = choose(request, adapters, task.choice)) {
        return outcome;
    }
    if (!only_check) {
        say("@\n", {describe(adapters, task.choice)});
    }
    if (request.command == Command::INFO) {
        return info(task);
    }
    QFU_FLASH_SLOT& slot = task.choice.adapter->slot[task.choice.chip_select];
    if (slot.chip == nullptr) {
        return refused("the chip is not in the chip list");
    }
    const Chip chip(*task.choice.adapter, slot,
                    adapters.id[task.choice.adapter->index][task.choice.chip_select]);
    if (!chip.has_usable_units()) {
        return refused("the chip list has impossible erase units");
    }
    Task on_chip = task; // the chip does not outlive this routine
    on_chip.chip = &chip;
    const Outcome outcome = set_range(on_chip);
    task.range = on_chip.range;
    return outcome || only_check ? outcome : run_command(on_chip, record);
}

namespace {

Outcome run_on_chip(Request& request, Adapters& adapters) {
    const platform::Pool<Pieces> pieces(1);
    if (!pieces) {
        return refused("there is not enough memory");
    }
    Image image;
    Record record{};
    Task task{};
    task.request = &request;
    task.adapters = &adapters;
    task.pieces = pieces.get();
    Outcome outcome = open_image(request, image, record, task);
    outcome = outcome ? outcome : find_adapters(request, adapters);
    return outcome ? outcome : run_task(task, adapters, record, false);
}

/// Everything that looks at an adapter.
Outcome run_request(Request& request, const CHAR16* program, Adapters& adapters) {
    const Outcome list = load_chip_list(program, adapters);
    if (list && request.command != Command::INFO) {
        return list;
    }
    if (list) {
        say("@\n", {reason()});
    }
    if (request.command != Command::LIST) {
        return run_on_chip(request, adapters);
    }
    if (Outcome outcome = find_adapters(request, adapters)) {
        return outcome;
    }
    print_adapters(adapters);
    return done("found @@",
                {adapters.adapter_count, adapters.adapter_count == 1 ? " adapter" : " adapters"});
}

/// Prints the last line. @returns the exit status
EFI_STATUS end(Outcome outcome, const Request& request) {
    switch (outcome.verdict) {
    case Verdict::DONE:
        say("done: @.\n", {reason()});
        return 0;
    case Verdict::HELD:
        say("held: @. Nothing was changed.\n", {reason()});
        return 0;
    case Verdict::FAILED:
        say("FAILED: @.\n", {reason()});
        return 1;
    default:
        say("refused: @@",
            {reason(), erases(request.command) ? ". Nothing was changed.\n" : ".\n"});
        return NOTHING_CHANGED;
    }
}

EFI_STATUS run(std::span<CHAR16* const> words) {
    Text reason;
    keep_reason_in(reason);
    const platform::Pool<Request> request(1);
    const platform::Pool<Adapters> adapters(1);
    if (!request || !adapters) {
        say("refused: there is not enough memory.\n");
        return NOTHING_CHANGED;
    }
    switch (parse(words.empty() ? words : words.subspan(1), *request)) {
    case Parsed::HELP:
        print_help();
        return 0;
    case Parsed::COMMAND_HELP:
        print_help(request->command);
        return 0;
    case Parsed::VERSION:
        say("flash @\n", {VERSION});
        return 0;
    case Parsed::REFUSED:
        return end({Verdict::REFUSED}, {});
    default:
        break;
    }
    AtEnd at_end = AtEnd::PROMPT;
    const Outcome outcome = request->command == Command::JOB
                                ? run_job(request->file, words[0], *adapters, at_end)
                                : run_request(*request, words[0], *adapters);
    finish(*adapters);
    const EFI_STATUS status = end(outcome, *request);
    leave(at_end);
    return status;
}

} // namespace
} // namespace flash

EFI_STATUS EFIAPI flash_entry(EFI_HANDLE image, EFI_SYSTEM_TABLE* table) {
    platform::attach(image, table);
    // The drivers say what goes wrong in numbers; this program has words.
    qfu_printer = nullptr;
    platform::Arguments arguments{};
    if (!platform::arguments(arguments)) {
        return flash::NOTHING_CHANGED;
    }
    return flash::run({arguments.values, arguments.count});
}
