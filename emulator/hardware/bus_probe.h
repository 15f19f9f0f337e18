// Where a logic analyser is connected.
#pragma once

#include "operation.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace emulator {

class NorChip;
class SpiChip;
struct SpiTransfer;

/// One cycle on a parallel chip's bus.
struct NorCycle {
    bool write;
    std::uint32_t address; ///< in words
    std::uint16_t data;
    Operation operation; ///< what it completes, or reads
};

/// One access to a BAR of an adapter.
struct RegisterAccess {
    bool write;
    int bar;
    std::uint32_t offset;
    std::uint32_t value;
};

/// Sees the signals themselves, where the journal has words for them, and takes what it wants of
/// them. `place` and `adapter` are the names that the journal uses. A chip is null where none is
/// attached.
class BusProbe {
  public:
    virtual ~BusProbe() = default;

    /// A chip-select period is over.
    virtual void on_spi_transfer(std::string_view /*place*/, const SpiTransfer& /*transfer*/,
                                 Operation /*operation*/, const SpiChip* /*chip*/) {}
    /// A cycle on a parallel bus is over.
    virtual void on_nor_cycle(std::string_view /*place*/, const NorCycle& /*cycle*/,
                              const NorChip* /*chip*/) {}
    /// An access to a register begins when it writes, and is over when it reads.
    virtual void on_register_access(std::string_view /*adapter*/,
                                    const RegisterAccess& /*access*/) {}
    /// Something to look at has happened: a misuse, a fault, a loss of power.
    virtual void on_event(std::string_view /*what*/) {}
};

/// Probes at the same place, all of which see the same.
class BusProbes final : public BusProbe {
  public:
    void add(BusProbe& probe) { probes_.push_back(&probe); }
    void remove(const BusProbe& probe) { std::erase(probes_, &probe); }
    bool empty() const { return probes_.empty(); }

    void on_spi_transfer(std::string_view place, const SpiTransfer& transfer, Operation operation,
                         const SpiChip* chip) override {
        for (BusProbe* probe : probes_) {
            probe->on_spi_transfer(place, transfer, operation, chip);
        }
    }
    void on_nor_cycle(std::string_view place, const NorCycle& cycle, const NorChip* chip) override {
        for (BusProbe* probe : probes_) {
            probe->on_nor_cycle(place, cycle, chip);
        }
    }
    void on_register_access(std::string_view adapter, const RegisterAccess& access) override {
        for (BusProbe* probe : probes_) {
            probe->on_register_access(adapter, access);
        }
    }
    void on_event(std::string_view what) override {
        for (BusProbe* probe : probes_) {
            probe->on_event(what);
        }
    }

  private:
    std::vector<BusProbe*> probes_;
};

} // namespace emulator
