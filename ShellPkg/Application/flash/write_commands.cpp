#include "change.h"
#include "commands.h"
#include "file_name.h"

namespace flash {
namespace {

constexpr std::string_view HINT = "; -old fs1:NAME saves on another medium";

/// @param base  names the saved file when the request does not
Outcome change(const Task& task, const Image& image, Change::How how,
               const platform::FileName& base, std::string_view hint) {
    const Request& request = *task.request;
    say("range @, SHA-256 @\n", {task.range, image.sum()});
    how.ask = !request.has(YES);
    Backup backup(request.has(OLD) ? request.old : base, !request.has(OLD), request.has(IN_JOB),
                  request.has(OLD) ? "" : hint);
    Change change(*task.chip, task.range, image, backup, *task.pieces);
    return change.run(how, *task.adapters, task.choice);
}

} // namespace

Outcome write(const Task& task) {
    return change(task, *task.image, {.rewrite = task.request->has(ALL)}, task.request->file, HINT);
}

Outcome erase(const Task& task) {
    Image image;
    image.be_blank(static_cast<std::uint32_t>(task.range.end - task.range.first),
                   task.pieces->wanted);
    platform::FileName base{};
    append(base, "erase");
    return change(task, image, {}, base, HINT);
}

Outcome restore(const Task& task, const Record& record) {
    const QFU_ADAPTER& adapter = *task.choice.adapter;
    const Request& request = *task.request;
    say("saved from @, chip select @\n",
        {place_text(record.place, record.model), record.chip_select});
    const std::uint32_t id = task.adapters->id[adapter.index][task.choice.chip_select];
    if (record.model != model_of(adapter)) {
        return refused("@ is from another model", {request.file});
    }
    if (record.chip_select != task.choice.chip_select || (id & record.id_mask) != record.id) {
        return refused("@ is from another chip", {request.file});
    }
    if (record.place != place_of(adapter) && request.has(YES) && !request.has(ADAPTER | PLACE)) {
        return refused("@ is from another board; -y then needs -adid or -at", {request.file});
    }
    return change(task, *task.image, {.rewrite = true, .tolerate_unstable = true}, request.file,
                  "");
}

} // namespace flash
