// What a run did on the flash bus, in a few lines.
#pragma once

#include "hardware/bus_probe.h"
#include "hardware/machine.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace emulator {

/// Counts operations on the flash bus for as long as it lives. An operation's time is the time from
/// it to the next one, so the waits behind it are in it.
class BusSummary final : public BusProbe {
  public:
    BusSummary(Machine& machine, const Clock& clock);
    BusSummary(const BusSummary&) = delete;
    BusSummary& operator=(const BusSummary&) = delete;
    ~BusSummary() override;

    /// A table of the operations, and a line of register accesses for each adapter that had some.
    std::string text() const;

    void on_spi_transfer(std::string_view place, const SpiTransfer& transfer, Operation operation,
                         const SpiChip* chip) override;
    void on_nor_cycle(std::string_view place, const NorCycle& cycle, const NorChip* chip) override;

  private:
    using Place = std::string; ///< adapter and chip select
    struct Sum {
        std::uint64_t count = 0;
        std::uint64_t bytes = 0;
        std::uint64_t nanoseconds = 0;
    };
    void count(std::string_view place, Operation operation, std::uint64_t bytes);
    std::uint64_t bytes_moved(const std::string& adapter) const;

    Machine* machine_;
    const Clock* clock_;
    std::map<std::pair<Place, Operation>, Sum> sums_;
    Sum* last_ = nullptr; ///< of the operation that runs
    std::uint64_t last_ns_ = 0;
};

} // namespace emulator
