// One chip, read and changed in steps that either happen or say that they did not.
#pragma once

#include "qfu/adapter.h"
#include "text.h"

#include <cstdint>
#include <span>

namespace flash {

/// The chip of one slot of an adapter, which it selects. Breaks wait until a step has ended.
class Chip {
  public:
    /// @param id  what the chip answers to its identification
    Chip(QFU_ADAPTER& adapter, QFU_FLASH_SLOT& slot, std::uint32_t id);

    /// True for a NOR chip, which is programmed in words of two bytes at even addresses.
    bool has_words() const { return slot_->chip_type == QFU_CHIP_NOR; }

    std::uint32_t size() const { return size_; }

    /// The smallest erase unit that holds the address.
    QFU_ERASE_UNIT unit(std::uint32_t address) const;

    /// The largest unit of one erase that holds the address.
    QFU_ERASE_UNIT block(std::uint32_t address) const;

    /// True when the units of the chip's record are ones that this program can work with: powers
    /// of two up to 1 MiB that divide the chip.
    bool has_usable_units() const;

    /// Reads into `out`. A byte that cannot be read keeps the value that it had, so a caller who
    /// fills `out` with what it does not expect sees it.
    /// @returns false when the firmware refused an access or the controller did not answer
    bool read(std::uint32_t address, std::span<std::uint8_t> out) const;

    /// Reads over bytes that are not the expected ones, up to three times until the chip answers.
    /// @param expected  as many bytes as `out`
    bool read_over(std::uint64_t address, std::span<const std::uint8_t> expected,
                   std::span<std::uint8_t> out) const;

    /// Lifts the protection that the chip powers up with. Writes to the chip.
    void unlock() const;

    /// Erases a `unit` or a `block` of this chip.
    bool erase(QFU_ERASE_UNIT unit) const;

    /// Programs the bytes that are not FF. On a chip with words, `address` and size are even.
    bool program(std::uint32_t address, std::span<const std::uint8_t> data) const;

    /// Brings the chip back to reading after a step that failed.
    void settle() const;

    /// True when the chip is not busy and still answers its identification.
    bool answers() const;

    /// Reads the status register of a SPI chip. @returns false when the controller does not answer
    bool read_status(std::uint32_t& status) const;

  private:
    QFU_ADAPTER* adapter_;
    QFU_FLASH_SLOT* slot_;
    std::uint32_t id_;
    std::uint32_t size_;
};

/// Reads what a chip answers to its identification, and writes nothing to it.
/// @param slot  the selected slot of the adapter, attached and probed
/// @returns the answer, the first byte in bits 0 to 7; 0 without one
std::uint32_t read_identification(QFU_ADAPTER& adapter, const QFU_FLASH_SLOT& slot);

/// The opcodes to try for a chip's identification: those of the chip list, or the usual one without
/// a list.
std::span<const std::uint32_t> id_opcodes(const QFU_ADAPTER& adapter);

/// How long the pauses of one step on a chip may last together, in microseconds. The slowest chips
/// need a few seconds to erase a block.
inline constexpr std::uint64_t IDENTIFICATION_US = 2'000'000;
inline constexpr std::uint64_t READ_US = 4'000'000;
inline constexpr std::uint64_t CHANGE_US = 30'000'000;

} // namespace flash
