// The SPI flash controllers inside an adapter, register by register.
#pragma once

#include "hardware/clock.h"
#include "hardware/journal.h"
#include "hardware/spi_chip.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace emulator {

/// How a controller's registers are laid out.
enum class SpiLayout : std::uint8_t {
    kIndexed, ///< behind an index/data pair; data goes out and comes in through one register
    kWindow,  ///< a window of registers of their own
};

/// A controller with one chip select. A cycle that was started lasts until its busy bit has been
/// read as clear; software that does not look cannot know that the cycle is over.
class SpiController {
  public:
    SpiController(SpiLayout layout, std::string place, Journal& journal);

    void attach(std::unique_ptr<SpiChip> chip) {
        chip_ = std::move(chip);
        plain_ = {};
    }
    std::unique_ptr<SpiChip> detach() { return std::move(chip_); }
    SpiChip* chip() { return chip_.get(); }

    /// Register numbers count bytes: 0 command, 4 address, 8 data out, 12 data in (window), 20
    /// set-up (indexed).
    std::uint32_t read(std::uint32_t reg);
    void write(std::uint32_t reg, std::uint32_t value);

    /// The same for what nearly all accesses to a window are.
    /// @returns false when `read` or `write` has to look at the access; nothing has happened then
    [[gnu::always_inline]] bool read_shortly(std::uint32_t reg, std::uint32_t& value) {
        if (reg == kCommand && !held_) {
            running_ = false;
            value = command_ & ~kWindowBusy;
            return true;
        }
        value = data_in_;
        return reg == kDataIn && !running_;
    }
    [[gnu::always_inline]] bool write_shortly(std::uint32_t reg, std::uint32_t value) {
        if (running_) {
            return false;
        }
        if (reg == kCommand) {
            return start_shortly(value);
        }
        if (reg == kAddress && value <= kMostAddress) {
            address_ = value;
            return true;
        }
        if (reg == kDataOut) {
            data_out_ = value;
            return true;
        }
        return false;
    }

  private:
    static constexpr std::uint32_t kCommand = 0;
    static constexpr std::uint32_t kAddress = 4;
    static constexpr std::uint32_t kDataOut = 8;
    static constexpr std::uint32_t kDataIn = 12;
    static constexpr std::uint32_t kSetUp = 20;
    static constexpr int kWindowOpcode = 8; ///< its place in a window's command word
    static constexpr std::uint32_t kMostAddress = 0xFFFFFF;
    static constexpr std::uint8_t kDataBytes = 4; ///< of a data register, the first in bits 0 to 7
    static constexpr std::uint32_t kWindowBusy = 0x01;
    static constexpr std::uint32_t kIndexedBusy = 0x10;

    struct Cycle {
        std::uint8_t opcode;
        bool address;
        bool receive;
        std::uint8_t bytes;
    };
    /// A command word that was started before, without a complaint, and is one of the chip's plain
    /// cycles.
    struct PlainCommand {
        std::uint32_t word = 0;
        Operation operation = Operation::kUnknown;
        bool receives = false;
        std::uint32_t mask = 0; ///< of the bytes that are clocked
    };
    PlainCommand& plain(std::uint32_t command) {
        return plain_[(command >> kWindowOpcode) % plain_.size()];
    }
    void note_plain(std::uint32_t command, const Cycle& cycle, Operation operation);

    [[gnu::always_inline]] bool start_shortly(std::uint32_t command) {
        const PlainCommand& known = plain(command);
        std::uint32_t data = data_out_;
        if (known.word != command || chip_ == nullptr ||
            !chip_->transfer_at_rest(known.operation, address_, data)) {
            return false;
        }
        command_ = command;
        running_ = true;
        held_ = false;
        if (known.receives) {
            data_in_ = data & known.mask;
        }
        if (journal_->wants_cycles()) [[unlikely]] {
            log_plain(known, data);
        }
        return true;
    }

    Cycle decode(std::uint32_t command);
    void start(std::uint32_t command);
    /// Called on the short way, so with the convention of the firmware's tables: see there.
    [[gnu::noinline, gnu::ms_abi]] void log_plain(const PlainCommand& command, std::uint32_t data);
    [[gnu::cold]] void log(Cycle cycle, Operation operation, std::uint32_t sent,
                           std::uint32_t received);
    std::uint32_t busy_bit() const {
        return layout_ == SpiLayout::kIndexed ? kIndexedBusy : kWindowBusy;
    }
    [[gnu::cold]] void complain(std::string_view what);

    SpiLayout layout_;
    std::string place_;
    Journal* journal_;
    std::string line_; ///< of the cycle log; the place stays in it
    std::unique_ptr<SpiChip> chip_;
    std::uint32_t command_ = 0;
    std::uint32_t address_ = 0;
    std::uint32_t data_out_ = 0;
    std::uint32_t data_in_ = 0;
    bool running_ = false;
    bool held_ = false;                 ///< by the chip's fault: the running cycle does not end
    std::array<PlainCommand, 8> plain_; ///< by the last bits of the opcode
};

} // namespace emulator
