// One PCI function's configuration space.
#pragma once

#include <array>
#include <cstdint>

namespace emulator {

/// What a read of so many bytes gives where nobody answers.
constexpr std::uint32_t all_ones(int width) {
    return width == 4 ? 0xFFFFFFFFU : (1U << (8 * width)) - 1;
}

/// What a function says about itself.
struct PciIdentity {
    std::uint16_t vendor;
    std::uint16_t device;
    std::uint16_t subsystem_vendor;
    std::uint16_t subsystem;
    std::uint8_t revision;
    std::uint32_t class_code; ///< 24 bits
};

/// A 32-bit memory BAR.
struct PciBar {
    std::uint32_t size = 0; ///< bytes, a power of two; 0: the function does not have this BAR
    std::uint32_t low_bits =
        0; ///< what the low four bits always read as: 8 for prefetchable memory
};
using PciBars = std::array<PciBar, 6>;

/// A type 0 configuration space whose BARs size like hardware: address bits below the size read as
/// 0, whatever is written.
class PciFunction {
  public:
    PciFunction(const PciIdentity& identity, const PciBars& bars);

    /// Reads or writes `width` (1, 2 or 4) bytes of configuration space.
    std::uint32_t read(std::uint32_t offset, int width) const;
    void write(std::uint32_t offset, std::uint32_t value, int width);

    std::uint32_t bar_size(int bar) const { return bars_[static_cast<std::size_t>(bar)].size; }

    /// A place inside one of the function's BARs; tests false when it is none.
    struct Location {
        int bar = -1;
        std::uint32_t offset = 0;

        explicit operator bool() const { return bar >= 0; }
    };

    /// Where a bus address lies; nowhere while memory decoding is off.
    Location locate(std::uint64_t address) const;

  private:
    std::uint32_t dword(std::uint32_t offset) const;

    PciIdentity identity_;
    PciBars bars_;
    std::array<std::uint32_t, 6> bases_{};
    std::uint16_t command_ = 0;
    std::uint8_t interrupt_line_ = 0;
};

} // namespace emulator
