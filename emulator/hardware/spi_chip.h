// A serial flash chip: what silicon does with each chip-select period.
#pragma once

#include "busy_times.h"
#include "clock.h"
#include "fault.h"
#include "journal.h"
#include "spi_part.h"
#include "unfinished_change.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace emulator {

/// One chip-select period as the controller clocks it. Data goes both ways at once: the byte that
/// leaves the controller with a clock comes before the byte that arrives with it.
struct SpiTransfer {
    std::uint8_t opcode;
    bool has_address;
    std::uint32_t address;              ///< 24 bits
    std::span<const std::uint8_t> mosi; ///< to the chip, one byte for each data byte of the cycle
    std::span<std::uint8_t> miso;       ///< from the chip; an idle line leaves 0
};

/// A chip of a given part. Its contents are memory of its own, erased at first, or the part's size
/// of memory that somebody else keeps for longer than the chip lives.
class SpiChip {
  public:
    SpiChip(const SpiPart& part, std::string place, const Clock& clock, Journal& journal,
            BusyTimes times, std::span<std::uint8_t> kept = {});

    /// Carries out one chip-select period.
    /// @returns what the chip took it for
    Operation transfer(const SpiTransfer& transfer);

    /// Carries out one chip-select period given as the bytes on the wires: those that are sent,
    /// one at least, and behind them those that are received. The opcode tells which is which.
    /// @returns what the chip took it for
    Operation clock(std::span<const std::uint8_t> sent, std::span<std::uint8_t> received);

    /// Makes the chip one that does not know the opcode.
    void forget(std::uint8_t opcode) { commands_[opcode] = {}; }

    /// Until when the chip is busy; for ever when a fault keeps it so.
    std::uint64_t busy_until_ns() const { return stuck_busy_ ? UINT64_MAX : busy_until_ns_; }

    /// True while the fault that keeps the controller busy strikes the last transfer.
    bool holds_controller() const { return holds_controller_; }

    const SpiPart& part() const { return *part_; }
    std::span<std::uint8_t> contents() const { return contents_; }
    Faults& faults() { return faults_; }
    const Faults& faults() const { return faults_; }
    std::uint8_t status();
    void set_status(std::uint8_t status) { status_ = status; }
    void protect_all_sectors() { sector_protected_.assign(sector_protected_.size(), true); }

    /// Power can go from now on.
    void expect_power_loss() { change_.expect_interruption(); }

    /// Ends what is over by now; a loss of power leaves it whole.
    void forget_ended_change(std::uint64_t now_ns) { change_.forget_ended(now_ns); }

    /// Interrupts what runs. `seed` decides what is left of it.
    void lose_power(std::uint64_t seed) { change_.interrupt(seed); }

    /// Comes up with the contents that it has; latch, busy state and volatile protection start
    /// anew.
    void power_up();

    /// How often each operation was carried out.
    std::uint64_t count(Operation operation) const {
        return counts_[static_cast<std::size_t>(operation)];
    }

  private:
    static constexpr std::uint8_t kBusy = 0x01;
    static constexpr std::uint8_t kWriteEnabled = 0x02;
    static constexpr std::uint8_t kBlockProtection = 0x3C;

    /// What an opcode stands for and what must come with it.
    struct Command {
        Operation operation = Operation::kUnknown;
        bool takes_address = false;
        bool takes_no_data = false; ///< executed only when chip select rises right behind it
        std::uint32_t unit = 0;     ///< bytes that an erase clears
    };
    void know(std::uint8_t opcode, Operation operation, std::uint32_t unit = 0);
    void carry_out(const Command& command, const SpiTransfer& transfer);
    bool is_busy();
    bool wants_address(const Command& command) const;
    bool write_enabled(std::string_view what);
    bool is_protected(std::uint32_t address, std::uint32_t length) const;
    bool may_change(std::uint32_t address, std::uint32_t length, std::string_view what);
    std::uint8_t sector_protection() const;
    void be_ready();
    void end_words();
    /// @returns when it is over
    std::uint64_t be_busy(std::uint64_t microseconds);
    void answer(const SpiTransfer& transfer, std::span<const std::uint8_t> bytes) const;
    void read(const SpiTransfer& transfer);
    void program(const SpiTransfer& transfer);
    void program_word(const SpiTransfer& transfer);
    void program_byte(std::size_t at, std::uint8_t byte);
    void erase(std::uint32_t address, std::uint32_t unit, std::string_view what);
    void write_status(const SpiTransfer& transfer);
    void query_protection(const SpiTransfer& transfer);
    void protect_sector(std::uint32_t address, bool protect);
    std::uint32_t offset(std::uint32_t address, std::string_view what);
    void complain(std::initializer_list<std::string_view> words);

    const SpiPart* part_;
    std::string place_;
    const Clock* clock_;
    Journal* journal_;
    BusyTimes times_;
    std::vector<std::uint8_t> own_; ///< empty when somebody else keeps the contents
    std::span<std::uint8_t> contents_;
    std::array<Command, 256> commands_{}; ///< by opcode
    std::array<std::uint64_t, kOperationCount> counts_{};
    Faults faults_;
    UnfinishedChange change_;
    std::uint8_t status_ = 0;
    std::vector<bool> sector_protected_;     ///< by protection sector; empty without such registers
    std::optional<std::uint32_t> next_word_; ///< address, while words are programmed
    bool status_enabled_ = false;            ///< by the command before, for a status write alone
    std::uint64_t busy_until_ns_ = 0;
    bool stuck_busy_ = false;
    bool holds_controller_ = false;
};

} // namespace emulator
