// The SPI flash controllers inside an adapter, register by register.
#pragma once

#include "clock.h"
#include "journal.h"
#include "spi_chip.h"

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

    void attach(std::unique_ptr<SpiChip> chip) { chip_ = std::move(chip); }
    std::unique_ptr<SpiChip> detach() { return std::move(chip_); }
    SpiChip* chip() { return chip_.get(); }

    /// Register numbers count bytes: 0 command, 4 address, 8 data out, 12 data in (window), 20
    /// set-up (indexed).
    std::uint32_t read(std::uint32_t reg);
    void write(std::uint32_t reg, std::uint32_t value);

  private:
    static constexpr std::uint32_t kCommand = 0;
    static constexpr std::uint32_t kAddress = 4;
    static constexpr std::uint32_t kDataOut = 8;
    static constexpr std::uint32_t kDataIn = 12;
    static constexpr std::uint32_t kSetUp = 20;
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
    Cycle decode(std::uint32_t command);
    void start(std::uint32_t command);
    void log(Cycle cycle, Operation operation, std::uint32_t sent, std::uint32_t received);
    std::uint32_t busy_bit() const {
        return layout_ == SpiLayout::kIndexed ? kIndexedBusy : kWindowBusy;
    }
    void complain(std::string_view what);

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
    bool held_ = false; ///< by the chip's fault: the running cycle does not end
};

} // namespace emulator
