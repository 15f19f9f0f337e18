// A machine's PCI hardware: adapters on buses, and the cycles that reach them.
#pragma once

#include "adapter.h"
#include "clock.h"
#include "journal.h"

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace emulator {

/// Adapters behind one root bridge.
class Machine {
  public:
    explicit Machine(const Clock& clock);
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;
    ~Machine() = default;

    /// Puts an adapter on the bus. Its name is its position.
    Adapter& add(const AdapterModel& model, PciAddress address, std::uint8_t revision);

    /// Puts a chip behind the adapter's chip select 1, with contents that somebody else keeps or
    /// its own.
    SpiChip& add_spi_chip(Adapter& adapter, const SpiPart& part, BusyTimes times,
                          std::span<std::uint8_t> kept = {});

    /// Puts a parallel chip behind chip select 0 of an adapter that has a NOR controller.
    NorChip& add_nor_chip(Adapter& adapter, const NorPart& part, BusyTimes times,
                          std::span<std::uint8_t> kept = {});

    std::span<const std::unique_ptr<Adapter>> adapters() const { return adapters_; }
    Adapter& adapter(std::size_t i) const { return *adapters_[i]; }
    Journal& journal() { return journal_; }

    /// Gives every BAR an address and turns memory decoding on, as firmware does at start.
    void assign_bars();

    /// Configuration cycles. Where there is no function, a read gives all ones.
    std::uint32_t config_read(PciAddress address, std::uint32_t offset, int width) const;

    /// True when the address lies in the window that the root bridge hands to PCI memory.
    static bool in_memory_window(std::uint64_t address);

    /// Memory cycles. Where no function decodes the address, a read gives all ones.
    std::uint32_t memory_read(std::uint64_t address, int width) const;
    void memory_write(std::uint64_t address, std::uint32_t value, int width) const;

    /// Register accesses of all adapters so far.
    std::uint64_t accesses() const;

  private:
    const Clock* clock_;
    Journal journal_;
    std::vector<std::unique_ptr<Adapter>> adapters_;
};

} // namespace emulator
