// Changes of the flash: compare, save, change, check.
#pragma once

#include "adapters.h"
#include "backup.h"
#include "image.h"
#include "qfu/platform/pool.h"

namespace flash {

/// One change of a chip. The wanted contents of an erase unit are the saved bytes with the image
/// laid over them, so that the bytes around the image are safe before anything is erased.
class Change {
  public:
    struct How {
        bool rewrite = false;           ///< erase and program all of it
        bool tolerate_unstable = false; ///< the range may read differently before it is changed
        bool ask = false;               ///< the user must agree
    };

    /// @param image   what the range is to hold; as long as it
    /// @param backup  receives what is changed
    Change(const Chip& chip, Addresses range, const Image& image, Backup& backup, Pieces& pieces)
        : chip_(&chip), range_(range), image_(&image), backup_(&backup), pieces_(&pieces) {}

    /// Compares, asks, saves, changes and checks. Honours a break between erase units.
    /// @returns held, done, refused or failed
    Outcome run(How how, const Adapters& adapters, const Choice& choice);

  private:
    enum class Action : std::uint8_t { NONE, PROGRAM, ERASE };

    /// What one erase covers: the smallest unit of the chip, or a block of several.
    struct Unit {
        std::size_t number; ///< of its first unit, counted from the first unit of the range
        std::uint64_t first;
        std::uint64_t end;
    };

    /// Calls `visit` with address and size of each piece of a range until one returns an outcome.
    template <class Visit>
    static Outcome each_piece(Addresses range, Visit visit);

    Outcome count_units();
    Outcome compare();
    Outcome compare_piece(std::uint64_t address, std::size_t count, Action& action);
    Outcome compare_units(std::span<std::uint64_t, 3> units);
    Outcome check_plan();
    Outcome apply();
    Outcome check();

    Unit unit_at(std::uint64_t address, std::size_t number) const;
    Unit first_unit() const { return unit_at(range_.first, 0); }
    Unit next(const Unit& unit) const;
    Unit step_at(const Unit& unit) const;
    bool in_span(const Unit& unit) const {
        return unit.first >= span_.first && unit.end <= span_.end;
    }
    Addresses touched(const Unit& unit) const;
    Addresses part_of(const Unit& unit) const;
    std::span<std::uint8_t> in_range(std::uint64_t address, std::span<std::uint8_t> bytes) const;
    bool read_image(std::uint64_t address, std::span<std::uint8_t> out) const;
    bool read_flash(std::uint64_t address, std::size_t count, std::span<std::uint8_t> out) const;
    Outcome read_wanted(std::uint64_t address, std::size_t count);
    Action action_for(std::size_t count) const;
    Outcome change_unit(const Unit& unit);
    Outcome try_unit(const Unit& unit, Action action, bool& good);
    Outcome program(std::uint64_t address, std::size_t count, Action action, bool& good);
    std::uint32_t lost_writes() const;
    Outcome check_units();
    Outcome check_piece(std::uint64_t address, std::size_t count, bool twice);
    std::uint32_t state_of(const Unit& unit, bool answers);
    Outcome explain_failure();

    const Chip* chip_;
    Addresses range_;
    const Image* image_;
    Backup* backup_;
    Pieces* pieces_;
    bool rewrite_ = false;
    Addresses span_{};               ///< from the first to the last unit that changes
    Addresses changing_{};           ///< the unit that is changed now
    platform::Pool<Action> actions_; ///< by unit number
    std::uint32_t lost_writes_before_ = 0;
};

} // namespace flash
