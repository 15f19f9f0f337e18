#include "job.h"

#include "backup.h"
#include "chip_list.h"
#include "commands.h"
#include "file_name.h"
#include "qfu/bounds.h"
#include "qfu/platform/clock.h"
#include "qfu/platform/pool.h"
#include "qfu/platform/shell.h"
#include "qfu/platform/system.h"
#include "qfu/platform/terminal.h"

namespace flash {
namespace {

/// Characters of a line of results at most, its end included.
constexpr std::size_t RESULT_LINE = 1000;

/// A variable of the boot program. Without it, and when it is no plain name, it is empty.
struct Variable {
    std::array<char, 64> text{};
    std::string_view value;

    std::string_view shown() const { return value.empty() ? "unknown" : value; }

    explicit Variable(const char* name) {
        const CHAR16* from = platform::shell_variable(name);
        std::size_t length = 0;
        while (from != nullptr && from[length] != 0 && length < text.size()) {
            text[length] = static_cast<char>(from[length]);
            ++length;
        }
        const std::string_view whole(text.data(), length);
        if (from != nullptr && from[length] == 0 && is_plain(whole) && whole != "unknown") {
            value = whole;
        }
    }
};

struct Buffers {
    std::array<char, JOB_FILE_SIZE> text;
    JobFile file;
    Request request;                                   ///< of one line, as it is written
    Request on_adapter;                                ///< with the adapter's own file names
    std::uint32_t failed;                              ///< adapters on which a line failed, as bits
    std::array<std::uint32_t, QFU_MAX_ADAPTERS> steps; ///< of each adapter
    bool changed; ///< a flash, or one that is not as it should be was found
};

constexpr char DIGITS[] = "0123456789abcdef";

bool fits(const Request& request, const QFU_ADAPTER& adapter) {
    return (request.has(ANY_MODEL) ||
            (request.vendor == adapter.vendor_id && request.device == adapter.device_id)) &&
           (!request.has(PLACE) || (request.bus == adapter.bus && request.dev == adapter.dev));
}

enum class Pass : std::uint8_t { COUNT, CHECK, RUN };

class Job {
  public:
    Job(const platform::FileName& file, Adapters& adapters, Buffers& buffers, Pieces& pieces)
        : file_(&file), adapters_(&adapters), b_(&buffers), pieces_(&pieces) {}

    Outcome read();
    Outcome check(const CHAR16* program);
    Outcome work();
    void begin() { record(line("QFU-JOB", nullptr)); }
    void refuse(const char* status) {
        Text text = line("QFU-RESULT", nullptr);
        text.add(" adapter=none status=@ -- @", {status, reason()});
        record(text);
    }

  private:
    Text line(const char* kind, const QFU_ADAPTER* adapter) const;
    static void record(const Text& text);
    Outcome at_line(const JobLine& line) const;
    Outcome pass(Pass pass);
    Outcome check_adapters();
    Outcome on_adapter(const QFU_ADAPTER& adapter);
    Outcome run(const QFU_ADAPTER& adapter, Task& task, Image& image, bool only_check);
    void step(const JobLine& line, const QFU_ADAPTER& adapter, Task& task, Image& image);

    const platform::FileName* file_;
    Adapters* adapters_;
    Buffers* b_;
    Pieces* pieces_;
    Variable serial_{"QfuSerial"};
    Variable machine_{"QfuMachine"};
};

Text Job::line(const char* kind, const QFU_ADAPTER* adapter) const {
    Text text("@ machine=@ serial=@ job=@",
              {kind, machine_.shown(), serial_.shown(), b_->file.name});
    if (adapter != nullptr) {
        text.add(" adapter=@ place=@:@.0 device=@:@",
                 {adapter->index, Digits(adapter->bus, 2), Digits(adapter->dev, 2),
                  Digits(adapter->vendor_id, 4), Digits(adapter->device_id, 4)});
    }
    return text;
}

/// Prints a line of results and adds it to the file, flushed, so that it survives a power loss.
void Job::record(const Text& text) {
    constexpr std::string_view END = " ;\r\n";
    std::array<char, RESULT_LINE + 2> bytes{};
    std::size_t count = 0;
    for (const CHAR16 c : text.characters()) {
        if (count < RESULT_LINE - 2) {
            bytes[count++] = c >= ' ' && c < 0x7F ? static_cast<char>(c) : '?';
        }
    }
    for (const char c : END) {
        bytes[count++] = c;
    }
    say("@\n", {std::string_view(bytes.data(), count - 2)});
    platform::FileName name{};
    append(name, "results.txt");
    platform::FileHandle file;
    std::uint64_t size = 0;
    if (file.open(name, platform::ACCESS_CREATE) != EFI_SUCCESS ||
        platform::size(file.get(), size) != EFI_SUCCESS ||
        platform::set_position(file.get(), size) != EFI_SUCCESS ||
        platform::write(file.get(), bytes.data(), count) != EFI_SUCCESS ||
        platform::flush(file.get()) != EFI_SUCCESS || file.close() != EFI_SUCCESS) {
        say("results.txt cannot be written; is the medium full?\n");
    }
}

/// Refused for the last reason, with the line's number.
Outcome Job::at_line(const JobLine& line) const {
    const Text what = reason();
    return refused("@:@: @", {*file_, line.number, what});
}

Outcome Job::read() {
    Image file;
    if (Outcome outcome = file.open(*file_, pieces_->wanted)) {
        return outcome;
    }
    if (file.size() > JOB_FILE_SIZE) {
        return refused("@: too long; allowed: 65536 bytes", {*file_});
    }
    if (!file.read(0, {reinterpret_cast<std::uint8_t*>(b_->text.data()), file.size()})) {
        return refused("@: cannot be read", {*file_});
    }
    return parse_job(*file_, {b_->text.data(), file.size()}, b_->file, b_->request);
}

/// Goes through the lines, and for each through its adapters.
Outcome Job::pass(Pass pass) {
    Outcome outcome;
    for (std::size_t i = 0; i < b_->file.count; ++i) {
        const JobLine& line = b_->file.lines[i];
        std::uint32_t count = 0;
        for (const QFU_ADAPTER& adapter : adapters_->found()) {
            parse_line(line, b_->request); // it was checked
            if (!fits(b_->request, adapter)) {
                continue;
            }
            ++count;
            if (pass == Pass::COUNT) {
                ++b_->steps[adapter.index];
                continue;
            }
            if (platform::break_requested()) {
                return refused("stopped by Ctrl-C");
            }
            Image image;
            Task task{};
            if (pass == Pass::RUN) {
                step(line, adapter, task, image);
            } else if (run(adapter, task, image, true)) {
                return at_line(line);
            }
        }
        if (!outcome && pass == Pass::COUNT && count != b_->request.count) {
            refused("adapters needed: @, found: @", {b_->request.count, count});
            outcome = at_line(line);
        }
    }
    return outcome;
}

/// The adapters must be exactly those of the job.
Outcome Job::check_adapters() {
    Outcome outcome = pass(Pass::COUNT);
    for (const QFU_ADAPTER& adapter : adapters_->found()) {
        std::uint32_t& steps = b_->steps[adapter.index];
        Text text = line("QFU-FOUND", &adapter);
        text.add(" steps=@", {steps});
        record(text);
        if (!outcome && steps == 0) {
            outcome = refused("@ has no line for adapter @", {*file_, adapter.index});
        }
        steps = 0;
    }
    if (outcome) {
        print_adapters(*adapters_);
    }
    return outcome;
}

Outcome Job::check(const CHAR16* program) {
    const CHAR16* damaged = platform::shell_variable("QfuSums");
    if (damaged != nullptr && !is(damaged, "ok")) {
        return refused("the medium is damaged: @ is not what it was", {damaged});
    }
    Outcome outcome = load_chip_list(program, *adapters_);
    if (!outcome) {
        b_->request = {};
        outcome = find_adapters(b_->request, *adapters_);
    }
    outcome = outcome ? outcome : check_adapters();
    return outcome ? outcome : pass(Pass::CHECK);
}

/// Puts the adapter and its own file names into the line.
Outcome Job::on_adapter(const QFU_ADAPTER& adapter) {
    char place[] = "00-00.0";
    place[0] = DIGITS[adapter.bus >> 4];
    place[1] = DIGITS[adapter.bus & 15];
    place[3] = DIGITS[adapter.dev >> 4];
    place[4] = DIGITS[adapter.dev & 15];
    const Names names = {
        serial_.value, machine_.value, {place, 7}
    };
    Request& request = b_->on_adapter;
    request = b_->request;
    request.given |= ADAPTER;
    request.adapter = adapter.index;
    return expand(b_->request.file, names, request.file) &&
                   expand(b_->request.old, names, request.old)
               ? Outcome{}
               : refused("the machine's own name is not known, or not plain");
}

/// Runs a line on an adapter, or only checks it.
Outcome Job::run(const QFU_ADAPTER& adapter, Task& task, Image& image, bool only_check) {
    Record record{};
    task.request = &b_->on_adapter;
    task.adapters = adapters_;
    task.pieces = pieces_;
    Outcome outcome = on_adapter(adapter);
    outcome = outcome ? outcome : open_image(b_->on_adapter, image, record, task);
    return outcome ? outcome : run_task(task, *adapters_, record, only_check);
}

/// What the range of a task reads now. @returns false when it cannot be read
bool sum_of_flash(const Task& task, QFU_SHA256::Sum& sum) {
    QFU_ADAPTER& adapter = *task.choice.adapter;
    const std::size_t chip_select = task.choice.chip_select;
    const Chip chip(adapter, adapter.slot[chip_select],
                    task.adapters->id[adapter.index][chip_select]);
    QFU_SHA256 hash;
    for (std::uint64_t at = task.range.first; at < task.range.end; at += PIECE) {
        const auto piece = std::span(task.pieces->flash)
                               .first(qfu_smaller<std::uint64_t>(PIECE, task.range.end - at));
        if (!chip.read(static_cast<std::uint32_t>(at), piece)) {
            return false;
        }
        hash.add(piece);
    }
    sum = hash.finish();
    return true;
}

/// Seconds of the day.
std::uint32_t now() {
    platform::WallTime time{};
    platform::wall_time(time);
    return (time.hour * 60U + time.minute) * 60U + time.second;
}

/// Runs a line on an adapter, or skips it, and says what came of it.
void Job::step(const JobLine& job_line, const QFU_ADAPTER& adapter, Task& task, Image& image) {
    constexpr std::uint32_t DAY = 86400;
    constexpr std::string_view WORDS[] = {"skipped", "done", "held", "failed", "refused"};
    const std::uint32_t bit = 1U << adapter.index;
    const bool skipped = (b_->failed & bit) != 0 || (b_->failed != 0 && !b_->file.goes_on);
    const std::uint32_t start = now();
    const Outcome outcome = run(adapter, task, image, skipped);
    if (!outcome) {
        refused("a line before it failed");
    }
    Text text = line("QFU-RESULT", &adapter);
    text.add(" step=@ line=@ command=@",
             {++b_->steps[adapter.index], job_line.number, command_name(b_->request.command)});
    if (b_->request.has(FILE)) {
        text.add(" image=@", {b_->on_adapter.file});
    }
    text.add(" address=@ size=@", {Hex(task.range.first), task.range.end - task.range.first});
    if (task.image != nullptr) {
        text.add(" sha256=@", {image.sum()});
    }
    QFU_SHA256::Sum sum{};
    if (task.range.end != 0 && !skipped && sum_of_flash(task, sum)) {
        text.add(" flash=@", {sum});
    }
    text.add(
        " seconds=@ status=@ -- @",
        {(now() + DAY - start) % DAY, WORDS[static_cast<std::size_t>(outcome.verdict)], reason()});
    record(text);
    const bool good = outcome.verdict == Verdict::DONE || outcome.verdict == Verdict::HELD;
    b_->failed |= good ? 0 : bit;
    b_->changed = b_->changed || outcome.verdict == Verdict::FAILED ||
                  (outcome.verdict == Verdict::DONE && erases(b_->request.command));
}

/// @returns done when all steps are done or held
Outcome Job::work() {
    Outcome outcome = pass(Pass::RUN);
    if (outcome) {
        refuse("unfinished");
    } else if (b_->failed == 0) {
        return done("each adapter has @", {b_->file.name});
    } else {
        outcome = refused("@ is not done on each adapter", {b_->file.name});
    }
    return b_->changed ? Outcome{Verdict::FAILED} : outcome;
}

/// A sign that can be read from far away. Each letter has 5 rows of 5 dots.
void show_sign(bool good) {
    constexpr std::uint32_t ROWS[2][5] = {
        {0b11111'01110'11111'10000, 0b10000'10001'00100'10000, 0b11110'11111'00100'10000,
         0b10000'10001'00100'10000, 0b10000'10001'11111'11111},
        {0b11110'01110'01111'01111, 0b10001'10001'10000'10000, 0b11110'11111'01110'01110,
         0b10000'10001'00001'00001, 0b10000'10001'11110'11110},
    };
    constexpr std::uint32_t DOTS = 20;
    platform::set_color(good ? platform::Color::GREEN : platform::Color::RED);
    for (std::uint32_t line = 0; line < DOTS / 2; ++line) {
        Text text("\n");
        for (std::uint32_t dot = 0; dot < DOTS; ++dot) {
            const bool set = (ROWS[good ? 1 : 0][line / 2] >> (DOTS - 1 - dot) & 1) != 0;
            text.add("@@", {set ? "##" : "  ", dot % 5 == 4 ? "  " : ""});
        }
        print(text);
    }
    platform::set_color(platform::Color::PLAIN);
    say("\n\n");
}

} // namespace

Outcome run_job(const platform::FileName& file, const CHAR16* program, Adapters& adapters,
                AtEnd& at_end) {
    const platform::Pool<Buffers> buffers(1);
    const platform::Pool<Pieces> pieces(1);
    if (!buffers || !pieces) {
        return refused("there is not enough memory");
    }
    Job job(file, adapters, *buffers, *pieces);
    Outcome outcome = job.read();
    const Text complaint = reason();
    at_end = buffers->file.at_end;
    job.begin();
    if (outcome) {
        refused("@", {complaint});
    } else {
        outcome = job.check(program);
    }
    if (outcome) {
        job.refuse("refused");
    } else {
        outcome = job.work();
    }
    show_sign(outcome.verdict == Verdict::DONE);
    return outcome;
}

void leave(AtEnd at_end) {
    if (at_end == AtEnd::WAIT) {
        platform::Key key{};
        platform::discard_keys();
        while (!platform::take_key(key) && !platform::break_requested()) {
            platform::wait_for_key_1ms();
        }
    } else if (at_end != AtEnd::PROMPT && !platform::break_requested()) {
        platform::restart(at_end == AtEnd::POWER_OFF);
    }
}

} // namespace flash
