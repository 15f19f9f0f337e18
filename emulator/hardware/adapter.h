// An adapter: a PCI function with flash controllers behind its BARs.
#pragma once

#include "clock.h"
#include "journal.h"
#include "nor_controller.h"
#include "pci_function.h"
#include "phy_block.h"
#include "power.h"
#include "spi_controller.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace emulator {

/// How an adapter model's flash is reached.
enum class Interface : std::uint8_t {
    kIndexed, ///< index/data pair in BAR 5
    kBar2,    ///< window in BAR 2, beside the NOR controller
    kBar0,    ///< window in BAR 0
};

/// What sets one adapter model apart.
struct AdapterModel {
    std::uint16_t vendor;
    std::uint16_t device;
    Interface interface;
    std::uint8_t generation;
    std::uint8_t ports;
};

std::span<const AdapterModel> adapter_models();

/// The model with these IDs, or null.
const AdapterModel* find_adapter_model(std::uint16_t vendor, std::uint16_t device);

/// Where an adapter sits.
struct PciAddress {
    std::uint8_t bus;
    std::uint8_t device;
    std::uint8_t function;

    bool operator==(const PciAddress&) const = default;
};

/// A range of registers in a BAR.
struct RegisterWindow {
    int bar;
    std::uint32_t first;
    std::uint32_t size; ///< bytes

    bool contains(PciFunction::Location at) const {
        return at.bar == bar && at.offset - first < size;
    }
};

/// Bytes of a SPI controller's registers in a window.
inline constexpr std::uint32_t kSpiWindowSize = 0x20;

/// One adapter. Its registers are 32 bits wide, the flash window is read in 16 bits too; anything
/// else is misuse.
class Adapter {
  public:
    /// @param name  short name in logs and misuse
    Adapter(const AdapterModel& model, PciAddress address, std::uint8_t revision, std::string name,
            const Clock& clock, Journal& journal);

    PciFunction& pci() { return pci_; }
    const AdapterModel& model() const { return *model_; }
    PciAddress address() const { return address_; }
    const std::string& name() const { return name_; }
    SpiController& spi() { return spi_; }

    /// The NOR controller, on adapters that have one, or null.
    NorController* nor() { return nor_ ? &*nor_ : nullptr; }
    /// The PHY test block; null on models that have none.
    PhyBlock* phy() { return phy_ ? &*phy_ : nullptr; }

    /// Reads or writes `width` bytes at an offset into a BAR.
    std::uint32_t read(PciFunction::Location at, int width);
    void write(PciFunction::Location at, std::uint32_t value, int width);

    /// Configuration cycles. Without power a read gives all ones and a write is lost.
    std::uint32_t config_read(std::uint32_t offset, int width);
    void config_write(std::uint32_t offset, std::uint32_t value, int width);

    /// Takes power away in an access or at a time. Chips keep what silicon would; from then on the
    /// adapter answers nothing and notes no misuse. The adapter has its chips by then.
    void add_power_fault(const PowerFault& fault);
    const Power& power() const { return power_; }

    /// Gives power back: controllers and chips start anew, with the contents that they have.
    /// Firmware has given the BARs their addresses again.
    void power_up();

    /// Lets each register access take time.
    void take_time(VirtualClock& clock, AccessTimes times) {
        access_clock_ = &clock;
        access_times_ = times;
    }

    /// Register accesses so far.
    std::uint64_t accesses() const { return accesses_; }

  private:
    bool has_power();
    void forget_ended_changes(std::uint64_t now_ns);
    void lose_power();
    void report_power(std::string_view what);
    void reset();
    std::uint32_t carry_out_read(PciFunction::Location at, int width);
    void carry_out_write(PciFunction::Location at, std::uint32_t value, int width);
    std::uint32_t read_window(std::uint32_t offset, int width);
    bool is_nor_register(PciFunction::Location at) const;
    std::uint32_t read_register(PciFunction::Location at);
    void write_index(std::uint32_t value);
    void write_behind_index(std::uint32_t value);
    std::uint32_t indexed_register(std::string_view what);
    void log(char direction, PciFunction::Location at, std::uint32_t value, int width);
    void complain(std::string_view what, PciFunction::Location at);

    const AdapterModel* model_;
    PciAddress address_;
    std::string name_;
    const Clock* clock_;
    Journal* journal_;
    PciFunction pci_;
    Power power_;
    SpiController spi_;
    std::optional<NorController> nor_; ///< registers in BAR 2, flash window in BAR 0
    RegisterWindow spi_window_;
    std::optional<PhyBlock> phy_; ///< in BAR 5

    /// The steps that bring the indexed controller up; generation 2 needs none.
    enum class SetUp : std::uint8_t { kNone, kSelected, kReleased, kDone };

    SetUp set_up_ = SetUp::kNone;
    std::uint32_t index_ = 0;
    std::uint64_t accesses_ = 0;
    VirtualClock* access_clock_ = nullptr; ///< null: accesses take no time
    AccessTimes access_times_;
};

} // namespace emulator
