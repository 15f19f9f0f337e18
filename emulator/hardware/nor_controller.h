// The NOR flash controller of an adapter: sequences of bus cycles, and the flash window.
#pragma once

#include "clock.h"
#include "journal.h"
#include "nor_chip.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace emulator {

/// A controller and the chip behind it, if any: its data lines are pulled up, and so is its ready
/// pin.
class NorController {
  public:
    NorController(std::string place, const Clock& clock, Journal& journal);

    void attach(std::unique_ptr<NorChip> chip) { chip_ = std::move(chip); }
    std::unique_ptr<NorChip> detach() { return std::move(chip_); }
    NorChip* chip() const { return chip_.get(); }

    /// True when the controller has a register at this offset into the adapter's register BAR.
    static bool has_register(std::uint32_t offset);
    std::uint32_t read(std::uint32_t offset);
    void write(std::uint32_t offset, std::uint32_t value);

    /// Reads the word at an even offset into the flash window.
    std::uint16_t read_window(std::uint32_t offset);

  private:
    /// One bus cycle that a sequence will send.
    struct Cycle {
        std::uint32_t address = 0; ///< in words
        std::uint32_t data = 0;
        bool has_address = false; ///< loaded since the last sequence
        bool has_data = false;
    };
    static constexpr std::size_t kCycles = 6;

    std::uint32_t* find_cycle_register(std::uint32_t offset, bool written);
    void control_interface(std::uint32_t value);
    void start(std::uint32_t command);
    void log(std::size_t cycles, Operation operation);
    void complain(std::string_view what);

    std::string place_;
    const Clock* clock_;
    Journal* journal_;
    std::unique_ptr<NorChip> chip_;
    std::array<Cycle, kCycles> cycles_{};
    std::uint32_t status_ = 0;
    bool running_ = false; ///< a sequence has started that does not end
    std::uint32_t interface_ = 0;
    std::uint64_t reset_since_ns_ = 0;
    bool was_reset_ = false;
    std::uint32_t window_control_ = 0;
    std::uint32_t window_high_ = 0;
    std::uint32_t window_base_ = 0;
    std::uint32_t mode_;
};

} // namespace emulator
