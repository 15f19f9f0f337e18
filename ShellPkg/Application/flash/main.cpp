#include "main.h"

#include "adapters.h"
#include "backup.h"
#include "chip_list.h"
#include "commands.h"
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

bool erases(Command command) {
    return command == Command::WRITE || command == Command::RESTORE || command == Command::ERASE;
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

/// Opens the request's file and, for a restore, reads its text file.
Outcome open_image(Request& request, Image& image, Record& record, Pieces& pieces) {
    if (Outcome outcome = image.open(request.file, pieces.wanted)) {
        return outcome;
    }
    if (request.has(SUM) && request.sum != image.sum()) {
        return refused({request.file, " has the SHA-256 ", image.sum()});
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
               : refused({request.file, " is not what its text file describes"});
}

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
               : refused({task.range, " ends past the end of the chip, ", Hex(chip_size - 1)});
}

Outcome run_on_chip(Request& request, Adapters& adapters) {
    const platform::Pool<Pieces> pieces(1);
    if (!pieces) {
        return refused({"there is not enough memory"});
    }
    Image image;
    Record record{};
    Task task{};
    task.request = &request;
    task.adapters = &adapters;
    task.pieces = pieces.get();
    if (reads_image(request.command)) {
        task.image = &image;
        if (Outcome outcome = open_image(request, image, record, *pieces)) {
            return outcome;
        }
    }
    Outcome outcome = find_adapters(request, adapters);
    outcome = outcome ? outcome : choose(request, adapters, task.choice);
    if (outcome) {
        return outcome;
    }
    say({describe(adapters, task.choice), "\n"});
    if (request.command == Command::INFO) {
        return info(task);
    }
    QFU_FLASH_SLOT& slot = task.choice.adapter->slot[task.choice.chip_select];
    if (slot.chip == nullptr) {
        return refused({"the chip is not in the chip list"});
    }
    const Chip chip(*task.choice.adapter, slot,
                    adapters.id[task.choice.adapter->index][task.choice.chip_select]);
    task.chip = &chip;
    if (!chip.has_usable_units()) {
        return refused({"the chip list has impossible erase units for the chip"});
    }
    outcome = set_range(task);
    return outcome ? outcome : run_command(task, record);
}

/// Everything that looks at an adapter.
Outcome run_request(Request& request, const CHAR16* program, Adapters& adapters) {
    const Outcome list = load_chip_list(program, adapters);
    if (list && request.command != Command::INFO) {
        return list;
    }
    if (list) {
        say({reason(), "\n"});
    }
    if (request.command != Command::LIST) {
        return run_on_chip(request, adapters);
    }
    if (Outcome outcome = find_adapters(request, adapters)) {
        return outcome;
    }
    print_adapters(adapters);
    return done(
        {"found ", adapters.adapter_count, adapters.adapter_count == 1 ? " adapter" : " adapters"});
}

/// Prints the last line. @returns the exit status
EFI_STATUS end(Outcome outcome, const Request& request) {
    switch (outcome.verdict) {
    case Verdict::DONE:
        say({"done: ", reason(), ".\n"});
        return 0;
    case Verdict::HELD:
        say({"held: ", reason(), ". Nothing was changed.\n"});
        return 0;
    case Verdict::FAILED:
        say({"FAILED: ", reason(), ".\n"});
        return 1;
    default:
        say({"refused: ", reason(), erases(request.command) ? ". Nothing was changed.\n" : ".\n"});
        return NOTHING_CHANGED;
    }
}

EFI_STATUS run(std::span<CHAR16* const> words) {
    Text reason;
    keep_reason_in(reason);
    const platform::Pool<Request> request(1);
    const platform::Pool<Adapters> adapters(1);
    if (!request || !adapters) {
        say({"refused: there is not enough memory.\n"});
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
        say({"flash ", VERSION, "\n"});
        return 0;
    case Parsed::REFUSED:
        return end({Verdict::REFUSED}, {});
    default:
        break;
    }
    const Outcome outcome = run_request(*request, words[0], *adapters);
    finish(*adapters);
    return end(outcome, *request);
}

} // namespace
} // namespace flash

EFI_STATUS EFIAPI flash_entry(EFI_HANDLE image, EFI_SYSTEM_TABLE* table) {
    platform::attach(image, table);
    // The drivers say what goes wrong in numbers; this program has words.
    qfu_quiet = true;
    platform::Arguments arguments{};
    if (!platform::arguments(arguments)) {
        return flash::NOTHING_CHANGED;
    }
    return flash::run({arguments.values, arguments.count});
}
