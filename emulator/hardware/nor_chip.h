// A parallel NOR flash chip: what silicon does with each cycle on its 16-bit bus.
#pragma once

#include "busy_times.h"
#include "clock.h"
#include "fault.h"
#include "journal.h"
#include "nor_part.h"
#include "unfinished_change.h"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

/// A chip of a given part. Its contents are memory of its own, erased at first, or the part's size
/// of memory that somebody else keeps for longer than the chip lives. Addresses on the bus count
/// 16-bit words.
class NorChip {
  public:
    NorChip(const NorPart& part, std::string place, const Clock& clock, Journal& journal,
            BusyTimes times, std::span<std::uint8_t> kept = {});

    /// One write cycle.
    /// @returns the command that it completes; unknown while there is none
    Operation write(std::uint32_t address, std::uint16_t data);

    /// One read cycle: contents, or the identification while the chip shows that.
    std::uint16_t read(std::uint32_t address);

    /// True while reads give the identification.
    bool shows_identification() const { return state_ == State::kIdentification; }

    /// The level of the ready pin.
    bool ready();

    /// Until when the ready pin is low; for ever when a fault keeps it so.
    std::uint64_t busy_until_ns() const { return stuck_busy_ ? UINT64_MAX : busy_until_ns_; }

    /// A pulse on the reset pin: back to reading, out of every mode.
    void reset();

    /// True while the fault that keeps the controller busy strikes the last command.
    bool holds_controller() const { return holds_controller_; }

    const NorPart& part() const { return *part_; }
    std::span<std::uint8_t> contents() const { return contents_; }
    Faults& faults() { return faults_; }
    const Faults& faults() const { return faults_; }

    /// Power can go from now on.
    void expect_power_loss() { change_.expect_interruption(); }

    /// Ends what is over by now; a loss of power leaves it whole.
    void forget_ended_change(std::uint64_t now_ns) { change_.forget_ended(now_ns); }

    /// Interrupts what runs. `seed` decides what is left of it.
    void lose_power(std::uint64_t seed) { change_.interrupt(seed); }

    /// Comes up reading, with the contents that it has.
    void power_up();

    /// How often each operation was carried out.
    std::uint64_t count(Operation operation) const {
        return counts_[static_cast<std::size_t>(operation)];
    }

  private:
    /// How far a command has come. Unlock-bypass mode has states of its own.
    enum class State : std::uint8_t {
        kRead,
        kIdentification,
        kUnlock1,
        kUnlock2,
        kProgram,
        kErase,
        kEraseUnlock1,
        kEraseUnlock2,
        kBypass,
        kBypassProgram,
        kBypassReset,
    };
    struct Step;
    static const Step* find_step(State state, std::uint32_t address, std::uint16_t data);
    NorBlock touched(Operation operation, std::uint32_t address) const;
    void carry_out(Operation operation, std::uint32_t address, std::uint16_t data);
    void program(std::uint32_t at, std::uint16_t data);
    void erase(NorBlock block);
    /// @returns when it is over
    std::uint64_t be_busy(std::uint64_t microseconds);
    std::uint32_t offset(std::uint32_t address, std::string_view what);
    void complain(std::string_view what);

    const NorPart* part_;
    std::string place_;
    const Clock* clock_;
    Journal* journal_;
    BusyTimes times_;
    std::vector<std::uint8_t> own_; ///< empty when somebody else keeps the contents
    std::span<std::uint8_t> contents_;
    std::array<std::uint64_t, kOperationCount> counts_{};
    Faults faults_;
    UnfinishedChange change_;
    State state_ = State::kRead;
    std::uint64_t busy_until_ns_ = 0;
    bool stuck_busy_ = false;
    bool holds_controller_ = false;
};

} // namespace emulator
