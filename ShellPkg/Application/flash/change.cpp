#include "change.h"

#include "qfu/bounds.h"
#include "qfu/bytes.h"
#include "qfu/console.h"
#include "qfu/platform/pci.h"
#include "qfu/platform/shell.h"

namespace flash {
namespace {

/// Erase units that one change covers at most. The largest chips have 4,096.
constexpr std::size_t MOST_UNITS = 16'384;

Outcome stopped() {
    return refused("stopped by Ctrl-C");
}

/// Asks the user.
Outcome ask() {
    QFU_KEY key{};
    platform::discard_keys();
    say("Press Y to start, any other key to stop.\n");
    qfu_read_key(true, key);
    return key.character == 'y' || key.character == 'Y' ? Outcome{} : refused("Y was not pressed");
}

/// True when the byte can be programmed without an erase: it, or its whole word, reads FF.
bool is_erased(std::span<const std::uint8_t> bytes, std::size_t i, bool words) {
    return bytes[i] == 0xFF && (!words || bytes[i ^ 1] == 0xFF);
}

bool is_in(Addresses range, std::uint64_t address) {
    return address >= range.first && address < range.end;
}

/// What a part of the flash holds, as bits.
constexpr std::uint32_t HOLDS_IMAGE = 1;
constexpr std::uint32_t HOLDS_OLD = 2;
constexpr std::uint32_t UNREADABLE = 4;

std::string_view contents_name(std::uint32_t state) {
    return (state & HOLDS_IMAGE) != 0  ? " holds the image"
           : (state & HOLDS_OLD) != 0  ? " holds what was there before"
           : (state & UNREADABLE) != 0 ? " cannot be compared"
                                       : " holds neither";
}

} // namespace

Outcome Change::run(How how, const Adapters& adapters, const Choice& choice) {
    rewrite_ = how.rewrite;
    Outcome outcome = count_units();
    outcome = outcome ? outcome : compare();
    outcome = outcome ? outcome : backup_->take_name();
    outcome = outcome || !how.ask ? outcome : ask();
    if (outcome) {
        return outcome;
    }
    const Addresses tolerated = how.tolerate_unstable ? range_ : Addresses();
    outcome = backup_->save(*chip_, adapters, choice, span_, tolerated, *pieces_);
    if (!outcome) {
        say("saved @ as @\n", {span_, backup_->name()});
        outcome = check_plan();
    }
    outcome = outcome ? outcome : apply();
    return outcome ? outcome : check();
}

template <class Visit>
Outcome Change::each_piece(Addresses range, Visit visit) {
    for (std::uint64_t at = range.first; at < range.end; at += PIECE) {
        const auto count = qfu_smaller<std::uint64_t>(PIECE, range.end - at);
        if (Outcome outcome = visit(at, count)) {
            return outcome;
        }
    }
    return {};
}

Change::Unit Change::unit_at(std::uint64_t address, std::size_t number) const {
    const QFU_ERASE_UNIT unit = chip_->unit(static_cast<std::uint32_t>(address));
    return {number, unit.first, std::uint64_t{unit.first} + unit.size};
}

Change::Unit Change::next(const Unit& unit) const {
    const QFU_ERASE_UNIT smallest = chip_->unit(static_cast<std::uint32_t>(unit.first));
    const std::size_t units = (unit.end - unit.first) / smallest.size;
    return unit.end < chip_->size() ? unit_at(unit.end, unit.number + units)
                                    : Unit{unit.number + units, unit.end, unit.end};
}

/// The block that begins with this unit, when every unit of it is erased; else the unit.
Change::Unit Change::step_at(const Unit& unit) const {
    const QFU_ERASE_UNIT block = chip_->block(static_cast<std::uint32_t>(unit.first));
    const Unit all = {unit.number, block.first, std::uint64_t{block.first} + block.size};
    if (all.first != unit.first || !in_span(all)) {
        return unit;
    }
    for (Unit part = unit; part.first < all.end; part = next(part)) {
        if (actions_[part.number] != Action::ERASE) {
            return unit;
        }
    }
    return all;
}

/// The part of a unit that the range touches, in whole words where the chip has them.
Addresses Change::touched(const Unit& unit) const {
    Addresses part = {qfu_larger(unit.first, range_.first), qfu_smaller(unit.end, range_.end)};
    if (chip_->has_words()) {
        part.first &= ~std::uint64_t{1};
        part.end += part.end % 2;
    }
    return part;
}

/// The bytes of a piece that belong to the image.
std::span<std::uint8_t> Change::in_range(std::uint64_t address,
                                         std::span<std::uint8_t> bytes) const {
    const std::uint64_t first = qfu_larger(address, range_.first);
    const std::uint64_t end = qfu_smaller(address + bytes.size(), range_.end);
    return first < end ? bytes.subspan(first - address, end - first) : bytes.first(0);
}

/// Lays the image over a piece. @returns false when it cannot be read
bool Change::read_image(std::uint64_t address, std::span<std::uint8_t> out) const {
    const std::span<std::uint8_t> part = in_range(address, out);
    const std::uint64_t first = qfu_larger(address, range_.first);
    return part.empty() || image_->read(static_cast<std::uint32_t>(first - range_.first), part);
}

/// Reads a piece of the flash over bytes that are not the wanted ones.
bool Change::read_flash(std::uint64_t address, std::size_t count,
                        std::span<std::uint8_t> out) const {
    return chip_->read_over(address, std::span(pieces_->wanted).first(count), out.first(count));
}

/// The part of a unit that matters: all of it when it was saved.
Addresses Change::part_of(const Unit& unit) const {
    return in_span(unit) ? Addresses(unit.first, unit.end) : touched(unit);
}

/// Fills the piece `wanted` from the files, and `old` where it was saved.
Outcome Change::read_wanted(std::uint64_t address, std::size_t count) {
    const auto wanted = std::span(pieces_->wanted).first(count);
    if (is_in(span_, address)) {
        const auto old = std::span(pieces_->old).first(count);
        if (!backup_->read(static_cast<std::uint32_t>(address), old)) {
            return refused("@ cannot be read any more", {backup_->name()});
        }
        for (std::size_t i = 0; i < count; ++i) {
            wanted[i] = old[i];
        }
    }
    return read_image(address, wanted) ? Outcome{}
                                       : refused("@ cannot be read any more", {image_->name()});
}

/// What turns the piece `old` into the piece `wanted`.
Change::Action Change::action_for(std::size_t count) const {
    const auto old = std::span(pieces_->old).first(count);
    Action action = Action::NONE;
    for (std::size_t i = 0; i < count; ++i) {
        if (old[i] == pieces_->wanted[i]) {
            continue;
        }
        if (!is_erased(old, i, chip_->has_words())) {
            return Action::ERASE;
        }
        action = Action::PROGRAM;
    }
    return action;
}

Outcome Change::count_units() {
    std::size_t units = 0;
    for (Unit unit = first_unit(); unit.first < range_.end && units <= MOST_UNITS;
         unit = next(unit)) {
        ++units;
    }
    if (units > MOST_UNITS) {
        return refused("the range has more than @ erase units", {MOST_UNITS});
    }
    actions_ = platform::Pool<Action>(units);
    return actions_ ? Outcome{} : refused("there is not enough memory");
}

/// Finds out what one piece needs.
Outcome Change::compare_piece(std::uint64_t address, std::size_t count, Action& action) {
    const auto wanted = std::span(pieces_->wanted).first(count);
    if (platform::break_requested()) {
        return stopped();
    }
    if (!read_image(address, wanted)) {
        return refused("@ cannot be read any more", {image_->name()});
    }
    if (rewrite_) {
        action = Action::ERASE;
        return {};
    }
    if (!read_flash(address, count, pieces_->old)) {
        return refused("the chip does not answer at @", {Hex(address)});
    }
    // The other byte of a word that the image has half of stays as it is.
    for (std::size_t i = 0; i < count; ++i) {
        if (!is_in(range_, address + i)) {
            wanted[i] = pieces_->old[i];
        }
    }
    action = qfu_larger(action, action_for(count));
    return {};
}

Outcome Change::compare_units(std::span<std::uint64_t, 3> units) {
    QFU_SHA256 image;
    Progress progress("comparing", range_.end - range_.first);
    for (Unit unit = first_unit(); unit.first < range_.end; unit = next(unit)) {
        Action action = Action::NONE;
        const auto compare = [&](std::uint64_t at, std::size_t count) {
            progress.step(at, count);
            Outcome outcome = compare_piece(at, count, action);
            image.add(in_range(at, std::span(pieces_->wanted).first(count)));
            return outcome;
        };
        if (Outcome outcome = each_piece(touched(unit), compare)) {
            return outcome;
        }
        actions_[unit.number] = action;
        ++units[static_cast<std::size_t>(action)];
        if (action != Action::NONE) {
            span_.first = span_.end == 0 ? unit.first : span_.first;
            span_.end = unit.end;
        }
    }
    return image.finish() == image_->sum() ? Outcome{}
                                           : refused("@ reads differently now", {image_->name()});
}

Outcome Change::compare() {
    std::array<std::uint64_t, 3> units{}; // by action
    if (Outcome outcome = compare_units(units)) {
        return outcome;
    }
    if (span_.end == 0) {
        return held("@ holds @ already", {range_, image_->name()});
    }
    say("plan: @ units erased, @ only programmed, @ left alone\n", {units[2], units[1], units[0]});
    return {};
}

/// Both files must still say what was compared, and nobody may have pressed Ctrl-C.
Outcome Change::check_plan() {
    QFU_SHA256 image;
    for (Unit unit = first_unit(); unit.first < range_.end; unit = next(unit)) {
        const bool compared = in_span(unit) && !rewrite_;
        Action action = compared ? Action::NONE : actions_[unit.number];
        const auto check_piece = [&](std::uint64_t at, std::size_t count) {
            Outcome outcome = read_wanted(at, count);
            action = compared ? qfu_larger(action, action_for(count)) : action;
            image.add(in_range(at, std::span(pieces_->wanted).first(count)));
            return outcome;
        };
        if (Outcome outcome = each_piece(part_of(unit), check_piece)) {
            return outcome;
        }
        if (action != actions_[unit.number]) {
            return refused("the flash reads differently now at @", {part_of(unit)});
        }
    }
    if (image.finish() != image_->sum()) {
        return refused("@ reads differently now", {image_->name()});
    }
    return platform::break_requested() ? stopped() : Outcome{};
}

Outcome Change::apply() {
    lost_writes_before_ = platform::refused_accesses().writes;
    chip_->unlock();
    bool changed = false;
    Progress progress("writing", span_.end - span_.first);
    Unit step{};
    for (Unit unit = first_unit(); unit.first < span_.end; unit = next(step)) {
        step = step_at(unit);
        if (in_span(unit)) {
            progress.step(step.first, step.end - step.first);
        }
        if (actions_[unit.number] == Action::NONE) {
            continue;
        }
        changing_ = {step.first, step.end};
        if (changed && platform::break_requested()) {
            failed("stopped by Ctrl-C");
            return explain_failure();
        }
        if (change_unit(step)) {
            return explain_failure();
        }
        changed = true;
    }
    return {};
}

Outcome Change::change_unit(const Unit& unit) {
    for (const Action action : {actions_[unit.number], Action::ERASE}) {
        bool good = false;
        if (Outcome outcome = try_unit(unit, action, good)) {
            return outcome;
        }
        if (good) {
            return {};
        }
        chip_->settle();
    }
    const Outcome outcome = failed("@ does not accept the write", {part_of(unit)});
    std::uint32_t status = 0;
    if (!chip_->has_words() && chip_->read_status(status)) {
        reason().add(", status register @; the WP pin may be low", {Hex(status & 0xFF)});
    }
    return outcome;
}

Outcome Change::try_unit(const Unit& unit, Action action, bool& good) {
    const QFU_ERASE_UNIT bytes = {static_cast<std::uint32_t>(unit.first),
                                  static_cast<std::uint32_t>(unit.end - unit.first)};
    if (action == Action::ERASE && !chip_->erase(bytes)) {
        return {};
    }
    good = true;
    const Addresses range = {unit.first, unit.end};
    Outcome outcome = each_piece(range, [&](std::uint64_t at, std::size_t count) {
        return good ? program(at, count, action, good) : Outcome{};
    });
    if (outcome) {
        return outcome;
    }
    return each_piece(range, [&](std::uint64_t at, std::size_t count) {
        Outcome unread = read_wanted(at, count);
        good = good && !unread && read_flash(at, count, pieces_->flash) &&
               qfu_same_bytes(std::span(pieces_->wanted).first(count), pieces_->flash);
        return unread;
    });
}

/// Programs a piece of a unit. Bytes that hold what is wanted are not sent.
Outcome Change::program(std::uint64_t address, std::size_t count, Action action, bool& good) {
    if (Outcome outcome = read_wanted(address, count)) {
        return outcome;
    }
    const auto send = std::span(pieces_->flash).first(count);
    for (std::size_t i = 0; i < count; ++i) {
        const bool held = action == Action::PROGRAM && pieces_->old[i] == pieces_->wanted[i];
        send[i] = held ? 0xFF : pieces_->wanted[i];
    }
    good = chip_->program(static_cast<std::uint32_t>(address), send);
    return {};
}

/// Register writes that the firmware refused since the first erase.
std::uint32_t Change::lost_writes() const {
    return platform::refused_accesses().writes - lost_writes_before_;
}

/// Compares a piece of the flash with what is wanted.
Outcome Change::check_piece(std::uint64_t address, std::size_t count, bool twice) {
    const auto flash = std::span(pieces_->flash).first(count);
    if (Outcome outcome = read_wanted(address, count)) {
        return outcome;
    }
    if (!read_flash(address, count, flash) ||
        (twice &&
         (!read_flash(address, count, pieces_->again) || !qfu_same_bytes(flash, pieces_->again)))) {
        return failed("the chip does not answer, or not the same twice, at @", {Hex(address)});
    }
    for (std::size_t i = 0; i < count; ++i) {
        // Half of a word that was not saved is nobody's.
        const bool known = is_in(span_, address + i) || is_in(range_, address + i);
        if (known && flash[i] != pieces_->wanted[i]) {
            return failed("@ reads @, not @",
                          {Hex(address + i), Hex(flash[i]), Hex(pieces_->wanted[i])});
        }
    }
    return {};
}

Outcome Change::check_units() {
    QFU_SHA256 read;
    Progress progress("checking",
                      qfu_larger(range_.end, span_.end) - qfu_smaller(range_.first, span_.first));
    for (Unit unit = first_unit(); unit.first < range_.end; unit = next(unit)) {
        const bool twice = in_span(unit) && actions_[unit.number] != Action::NONE;
        const auto check = [&](std::uint64_t at, std::size_t count) {
            progress.step(at, count);
            Outcome outcome = check_piece(at, count, twice);
            read.add(in_range(at, std::span(pieces_->flash).first(count)));
            return outcome;
        };
        if (Outcome outcome = each_piece(part_of(unit), check)) {
            return outcome;
        }
    }
    if (read.finish() != image_->sum()) {
        return failed("the range has another SHA-256 than the image");
    }
    if (!chip_->answers()) {
        return failed("the chip no longer answers its identification");
    }
    return lost_writes() == 0 ? Outcome{} : failed("not every register write arrived");
}

Outcome Change::check() {
    if (check_units()) {
        return explain_failure();
    }
    return done("@ holds @; @ has what was there before",
                {range_, image_->name(), backup_->name()});
}

/// What a saved unit holds. When chip or files do not say it, what was done last does.
std::uint32_t Change::state_of(const Unit& unit, bool answers) {
    std::uint32_t state = HOLDS_IMAGE | HOLDS_OLD;
    if (!answers || read_wanted(unit.first, 1)) {
        return unit.end <= changing_.first   ? HOLDS_IMAGE
               : unit.first >= changing_.end ? HOLDS_OLD
                                             : UNREADABLE;
    }
    each_piece(part_of(unit), [&](std::uint64_t at, std::size_t count) -> Outcome {
        const auto flash = std::span(pieces_->flash).first(count);
        if (read_wanted(at, count) || !read_flash(at, count, flash)) {
            state = UNREADABLE;
            return {Verdict::FAILED};
        }
        state &= qfu_same_bytes(flash, pieces_->wanted) ? ~0U : ~HOLDS_IMAGE;
        state &= qfu_same_bytes(flash, pieces_->old) ? ~0U : ~HOLDS_OLD;
        return {};
    });
    return state;
}

/// Adds to the reason what each part of the span holds, by reading it again.
Outcome Change::explain_failure() {
    constexpr std::size_t MOST_PARTS = 10;
    Text explained("@; ", {reason()});
    std::size_t parts = 0;
    bool all_old = true;
    Text list;
    const bool answers = chip_->answers();
    Unit part = unit_at(span_.first, 0);
    std::uint32_t state = state_of(part, answers);
    for (Unit unit = part; unit.first < span_.end;) {
        all_old = all_old && (state & HOLDS_OLD) != 0;
        unit = next(unit);
        const std::uint32_t here = unit.first < span_.end ? state_of(unit, answers) : 0;
        const bool same = here == state || (here & state) != 0;
        if (unit.first < span_.end && same) {
            state = here == state ? state : here & state;
            continue;
        }
        if (parts++ < MOST_PARTS) {
            list.add("@@; ", {Addresses(part.first, unit.first), contents_name(state)});
        }
        part = unit;
        state = here;
    }
    if (parts > MOST_PARTS) {
        list.add("the rest is mixed; ");
    }
    explained.add("@", {all_old ? Text("the flash reads as before; ") : list});
    if (lost_writes() != 0) {
        explained.add("the firmware refused @@, so other parts of the chip may have changed; ",
                      {lost_writes(), lost_writes() == 1 ? " register write" : " register writes"});
    }
    return failed("@@ has what was there before", {explained, backup_->name()});
}

} // namespace flash
