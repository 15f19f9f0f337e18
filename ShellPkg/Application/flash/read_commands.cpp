#include "commands.h"
#include "qfu/bounds.h"
#include "qfu/platform/shell.h"

namespace flash {
namespace {

std::uint32_t count_bits(std::uint8_t byte) {
    std::uint32_t count = 0;
    for (; byte != 0; byte = static_cast<std::uint8_t>(byte & (byte - 1))) {
        ++count;
    }
    return count;
}

/// What is counted while the flash is compared with an image.
struct Differences {
    std::uint64_t bytes;
    std::uint64_t first;
    std::uint64_t last;
    std::uint64_t cleared_bits; ///< read 0 instead of 1
    std::uint64_t set_bits;     ///< read 1 instead of 0
    std::uint64_t unstable;     ///< bytes that do not read the same each time

    void add(std::uint64_t address, std::uint8_t wanted, std::uint8_t read) {
        constexpr std::uint64_t SHOWN = 16;
        if (bytes < SHOWN) {
            say("@ reads @, not @\n", {Hex(address), Hex(read), Hex(wanted)});
        }
        first = bytes == 0 ? address : first;
        last = address;
        ++bytes;
        cleared_bits += count_bits(static_cast<std::uint8_t>(wanted & ~read));
        set_bits += count_bits(static_cast<std::uint8_t>(read & ~wanted));
    }
};

/// Compares one piece, reading it as often as the request says. @returns refused without an answer
Outcome compare_piece(const Chip& chip, std::uint64_t at, std::size_t count, std::uint32_t times,
                      Pieces& pieces, Differences& differences) {
    const auto wanted = std::span(pieces.wanted).first(count);
    const auto first = std::span(pieces.flash).first(count);
    const auto again = std::span(pieces.again).first(count);
    const auto varies = std::span(pieces.old).first(count); // 1 for a byte that does
    for (std::uint8_t& byte : varies) {
        byte = 0;
    }
    for (std::uint32_t time = 0; time < times; ++time) {
        if (platform::break_requested()) {
            return refused("stopped by Ctrl-C");
        }
        if (!chip.read_over(at, wanted, time == 0 ? first : again)) {
            return refused("the chip does not answer at @", {Hex(at)});
        }
        for (std::size_t i = 0; time > 0 && i < count; ++i) {
            varies[i] = static_cast<std::uint8_t>(varies[i] | (first[i] != again[i] ? 1 : 0));
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        differences.unstable += varies[i];
        if (first[i] != wanted[i]) {
            differences.add(at + i, wanted[i], first[i]);
        }
    }
    return {};
}

} // namespace

Outcome verify(const Task& task) {
    const std::uint32_t times = task.request->has(TIMES) ? task.request->times : 1;
    const Image& image = *task.image;
    const Addresses& range = task.range;
    say("range @, SHA-256 @\n", {range, image.sum()});
    Differences differences{};
    Progress progress("comparing", range.end - range.first);
    for (std::uint64_t at = range.first; at < range.end; at += PIECE) {
        const auto count = qfu_smaller<std::uint64_t>(PIECE, range.end - at);
        progress.step(at, count);
        if (!image.read(static_cast<std::uint32_t>(at - range.first),
                        std::span(task.pieces->wanted).first(count))) {
            return refused("@ cannot be read any more", {image.name()});
        }
        if (Outcome outcome =
                compare_piece(*task.chip, at, count, times, *task.pieces, differences)) {
            return outcome;
        }
    }
    if (times > 1) {
        say("@ readings, @ unstable bytes\n", {times, differences.unstable});
    }
    if (differences.bytes != 0) {
        say("@ bytes differ, from @; @ bits read 0 instead of 1, @ bits 1 instead of 0\n",
            {differences.bytes, Addresses(differences.first, differences.last + 1),
             differences.cleared_bits, differences.set_bits});
        return failed("@ differs from @", {range, image.name()});
    }
    return differences.unstable != 0 ? failed("@ does not read the same each time", {range})
                                     : done("@ holds @", {range, image.name()});
}

Outcome backup(const Task& task) {
    Backup file(task.request->file, false, task.request->has(IN_JOB), "");
    Outcome outcome = file.take_name();
    if (!outcome) {
        outcome = file.save(*task.chip, *task.adapters, task.choice, task.range, {}, *task.pieces);
    }
    if (outcome) {
        return outcome;
    }
    say("SHA-256 @\n", {file.sum()});
    return done("@ has @", {file.name(), task.range});
}

Outcome blank(const Task& task) {
    const Addresses& range = task.range;
    for (std::uint8_t& byte : task.pieces->wanted) {
        byte = 0xFF;
    }
    Progress progress("reading", range.end - range.first);
    for (std::uint64_t at = range.first; at < range.end; at += PIECE) {
        if (platform::break_requested()) {
            return refused("stopped by Ctrl-C");
        }
        const auto count = qfu_smaller<std::uint64_t>(PIECE, range.end - at);
        const auto flash = std::span(task.pieces->flash).first(count);
        progress.step(at, count);
        if (!task.chip->read_over(at, std::span(task.pieces->wanted).first(count), flash)) {
            return refused("the chip does not answer at @", {Hex(at)});
        }
        for (std::size_t i = 0; i < count; ++i) {
            if (flash[i] != 0xFF) {
                return failed("@ is the first byte that is not FF; it reads @",
                              {Hex(at + i), Hex(flash[i])});
            }
        }
    }
    return done("@ is blank", {range});
}

} // namespace flash
