#include "backup.h"

#include "file_name.h"
#include "qfu/bounds.h"
#include "qfu/bytes.h"
#include "qfu/platform/clock.h"
#include "qfu/platform/shell.h"

namespace flash {
namespace {

using platform::FileHandle;
using platform::FileName;

enum class Existence : std::uint8_t { MISSING, EXISTS, UNKNOWN };

Existence look_for(const FileName& name) {
    FileHandle file;
    const EFI_STATUS status = file.open(name, platform::ACCESS_READ);
    return status == EFI_SUCCESS     ? Existence::EXISTS
           : status == EFI_NOT_FOUND ? Existence::MISSING
                                     : Existence::UNKNOWN;
}

enum class Readings : std::uint8_t { ALIKE, DIFFERENT, UNANSWERED };

/// Reads a range until two of up to three readings are alike; the first of them ends up in `old`.
/// Otherwise they are in `old`, `again` and `flash`.
/// @param count  bytes
Readings read_alike(const Chip& chip, std::uint32_t address, std::size_t count, Pieces& pieces) {
    const std::array<std::span<std::uint8_t>, 3> readings = {std::span(pieces.old).first(count),
                                                             std::span(pieces.again).first(count),
                                                             std::span(pieces.flash).first(count)};
    std::array<bool, 3> answered{};
    for (std::size_t n = 0; n < readings.size(); ++n) {
        for (std::size_t i = 0; i < count; ++i) {
            // A byte that is not read must not be like the ones before.
            std::uint8_t unlike = 0;
            while (n > 0 && (unlike == readings[0][i] || unlike == readings[n - 1][i])) {
                ++unlike;
            }
            readings[n][i] = unlike;
        }
        answered[n] = chip.read(address, readings[n]);
        for (std::size_t before = 0; before < n; ++before) {
            if (answered[n] && answered[before] && qfu_same_bytes(readings[n], readings[before])) {
                for (std::size_t i = 0; before > 0 && i < count; ++i) {
                    pieces.old[i] = readings[n][i];
                }
                return Readings::ALIKE;
            }
        }
    }
    return answered[0] && answered[1] && answered[2] ? Readings::DIFFERENT : Readings::UNANSWERED;
}

/// Deletes a file. @returns false when it may still exist
bool remove(const FileName& name) {
    FileHandle file;
    return file.open(name, platform::ACCESS_READ_WRITE) == EFI_SUCCESS
               ? file.remove() == EFI_SUCCESS
               : look_for(name) == Existence::MISSING;
}

} // namespace

Outcome Backup::take_name() {
    const FileName base = name_;
    for (std::uint32_t number = 0; number < 1000; ++number) {
        const char digits[] = {static_cast<char>('0' + number / 100),
                               static_cast<char>('0' + number / 10 % 10),
                               static_cast<char>('0' + number % 10)};
        name_ = base;
        bool fits = !numbered_ || (append(name_, ".old") && append(name_, {digits, 3}));
        text_name_ = name_;
        fits = fits && append(text_name_, ".txt");
        if (!fits) {
            return refused("@: the name is too long", {base});
        }
        const Existence file = look_for(name_);
        const Existence text = look_for(text_name_);
        if (file == Existence::MISSING && text == Existence::MISSING) {
            return {};
        }
        if (file == Existence::UNKNOWN || text == Existence::UNKNOWN) {
            return refused("@: cannot be looked for", {name_});
        }
        if (!numbered_ && in_job_) {
            numbered_ = true;
            --number; // begins with 0
        } else if (!numbered_) {
            return refused("@: exists", {file == Existence::EXISTS ? name_ : text_name_});
        }
    }
    return refused("@.old000 to @.old999 exist; move some away", {base, base});
}

Outcome Backup::save(const Chip& chip, const Adapters& adapters, const Choice& choice,
                     Addresses range, Addresses tolerated, Pieces& pieces) {
    first_ = static_cast<std::uint32_t>(range.first);
    size_ = range.end - range.first;
    Outcome outcome = save_bytes(chip, tolerated, pieces);
    if (!outcome) {
        outcome = save_text(adapters, choice);
    }
    return outcome ? give_up(outcome) : outcome;
}

Outcome Backup::not_written(const FileName& name) const {
    return refused("@: cannot be written@", {name, hint_});
}

Outcome Backup::save_bytes(const Chip& chip, Addresses tolerated, Pieces& pieces) {
    FileHandle file;
    if (file.open(name_, platform::ACCESS_CREATE) != EFI_SUCCESS) {
        return not_written(name_);
    }
    QFU_SHA256 hash;
    Progress progress("saving", size_);
    for (std::uint64_t offset = 0; offset < size_; offset += PIECE) {
        if (platform::break_requested()) {
            return refused("stopped by Ctrl-C");
        }
        const auto count = qfu_smaller<std::uint64_t>(PIECE, size_ - offset);
        const auto bytes = std::span(pieces.old).first(count);
        const std::uint64_t address = first_ + offset;
        progress.step(address, count);
        const Readings readings =
            read_alike(chip, static_cast<std::uint32_t>(address), count, pieces);
        if (readings == Readings::UNANSWERED) {
            return refused("the chip does not answer at @", {Addresses(address, address + count)});
        }
        for (std::size_t i = 0; readings == Readings::DIFFERENT && i < count; ++i) {
            const bool alike = bytes[i] == pieces.again[i] && bytes[i] == pieces.flash[i];
            if (!alike && (address + i < tolerated.first || address + i >= tolerated.end)) {
                return refused("the flash does not read the same twice at @", {Hex(address + i)});
            }
            unstable_ += alike ? 0 : 1;
        }
        hash.add(bytes);
        if (platform::write(file.get(), bytes.data(), bytes.size()) != EFI_SUCCESS) {
            return not_written(name_);
        }
    }
    if (platform::flush(file.get()) != EFI_SUCCESS || file.close() != EFI_SUCCESS) {
        return not_written(name_);
    }
    // A device such as NUL takes everything, and has nothing.
    return !saved_.open(name_, pieces.again) && saved_.size() == size_ &&
                   saved_.sum() == hash.finish()
               ? Outcome{}
               : refused("@: reads back differently@", {name_, hint_});
}

Outcome Backup::save_text(const Adapters& adapters, const Choice& choice) {
    const QFU_ADAPTER& adapter = *choice.adapter;
    const Record record = {.place = place_of(adapter),
                           .model = model_of(adapter),
                           .id = adapters.id[adapter.index][choice.chip_select],
                           .id_mask = Adapters::id_mask(choice),
                           .chip_select = static_cast<std::uint32_t>(choice.chip_select),
                           .address = first_,
                           .size = static_cast<std::uint32_t>(size_),
                           .sum = saved_.sum()};
    const Text text = record_text(record, adapter.index, unstable_);
    std::array<std::uint8_t, RECORD_SIZE> bytes{};
    std::size_t count = 0;
    for (const CHAR16 c : text.characters()) {
        bytes[count++] = static_cast<std::uint8_t>(c);
    }
    FileHandle file;
    if (file.open(text_name_, platform::ACCESS_CREATE) != EFI_SUCCESS ||
        platform::write(file.get(), bytes.data(), count) != EFI_SUCCESS ||
        platform::flush(file.get()) != EFI_SUCCESS || file.close() != EFI_SUCCESS) {
        return not_written(text_name_);
    }
    std::array<std::uint8_t, RECORD_SIZE> read_back{};
    std::size_t read = read_back.size();
    if (file.open(text_name_, platform::ACCESS_READ) != EFI_SUCCESS ||
        platform::read(file.get(), read_back.data(), read) != EFI_SUCCESS || read != count ||
        !qfu_same_bytes(bytes, read_back)) {
        return refused("@: reads back differently@", {text_name_, hint_});
    }
    return {};
}

Outcome Backup::give_up(Outcome outcome) {
    saved_.close();
    for (const FileName* name : {&name_, &text_name_}) {
        if (!remove(*name)) {
            reason().add("; @ may remain, incomplete", {*name});
        }
    }
    return outcome;
}

} // namespace flash
