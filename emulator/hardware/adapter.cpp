#include "adapter.h"

#include "hex.h"
#include "units.h"

#include <array>
#include <utility>

namespace emulator {
namespace {

constexpr std::array<AdapterModel, 23> kModels = {
    {
     {0x1F7E, 0xC701, Interface::kBar2, 4, 8}, {0x1F7E, 0xC702, Interface::kIndexed, 3, 2},
     {0x1E5D, 0xC703, Interface::kBar2, 4, 8}, {0x1E5D, 0xC704, Interface::kBar2, 4, 4},
     {0x1E5D, 0xC705, Interface::kBar0, 5, 8}, {0x1E5D, 0xC706, Interface::kBar0, 5, 8},
     {0x1E5D, 0xC707, Interface::kBar0, 5, 16}, {0x1E5D, 0xC708, Interface::kBar0, 5, 16},
     {0x1E5D, 0xC709, Interface::kIndexed, 3, 2}, {0x1E5D, 0xC70A, Interface::kIndexed, 3, 4},
     {0x1E5D, 0xC70B, Interface::kIndexed, 3, 4}, {0x1E5D, 0xC70C, Interface::kIndexed, 3, 2},
     {0x1E5D, 0xC70D, Interface::kIndexed, 3, 4}, {0x1E5D, 0xC70E, Interface::kIndexed, 3, 4},
     {0x1E5D, 0xC70F, Interface::kIndexed, 2, 2}, {0x1E5D, 0xC710, Interface::kIndexed, 2, 2},
     {0x1E5D, 0xC711, Interface::kIndexed, 2, 2}, {0x1E5D, 0xC712, Interface::kIndexed, 2, 2},
     {0x1E5D, 0xC713, Interface::kIndexed, 2, 2}, {0x1E5D, 0xC714, Interface::kIndexed, 2, 2},
     {0x1E5D, 0xC715, Interface::kIndexed, 2, 2}, {0x1E5D, 0xC716, Interface::kIndexed, 2, 2},
     {0x1E5D, 0xC717, Interface::kIndexed, 1, 2},
     }
};

/// The registers in BAR 5 of indexed adapters.
constexpr std::uint32_t kIndex = 0xA8;
constexpr std::uint32_t kData = 0xAC;
/// What the index register selects besides the register number, by its top byte.
constexpr std::uint32_t kSpiSpace = 0x06000000;
constexpr std::uint32_t kSetUpIndex = 0x02000070;
constexpr std::uint32_t kSpiCommand = 0;
constexpr std::uint32_t kSpiSetUp = 20;

PciBars bars(Interface interface) {
    constexpr std::uint32_t kPrefetchable = 0x8;
    PciBars bars{};
    switch (interface) {
    case Interface::kIndexed:
        bars[5].size = 4 * kKiB;
        break;
    case Interface::kBar2:
        bars[0] = {8 * kKiB, kPrefetchable}; // the flash window
        bars[2].size = 128 * kKiB;
        break;
    case Interface::kBar0:
        bars[0].size = 128 * kKiB;
        break;
    }
    return bars;
}

/// Where the SPI controller's own registers lie; the indexed one has none.
RegisterWindow spi_window(Interface interface) {
    switch (interface) {
    case Interface::kBar2:
        return {2, 0xC800, kSpiWindowSize};
    case Interface::kBar0:
        return {0, 0x1C800, kSpiWindowSize};
    case Interface::kIndexed:
        break;
    }
    return {-1, 0, 0};
}

PciIdentity identity(const AdapterModel& model, std::uint8_t revision) {
    constexpr std::uint32_t kRaidController = 0x010400;
    return {model.vendor, model.device, model.vendor, model.device, revision, kRaidController};
}

SpiLayout layout(Interface interface) {
    return interface == Interface::kIndexed ? SpiLayout::kIndexed : SpiLayout::kWindow;
}

} // namespace

std::span<const AdapterModel> adapter_models() {
    return kModels;
}

const AdapterModel* find_adapter_model(std::uint16_t vendor, std::uint16_t device) {
    for (const AdapterModel& model : kModels) {
        if (model.vendor == vendor && model.device == device) {
            return &model;
        }
    }
    return nullptr;
}

Adapter::Adapter(const AdapterModel& model, PciAddress address, std::uint8_t revision,
                 std::string name, const Clock& clock, Journal& journal)
    : model_(&model), address_(address), name_(std::move(name)), clock_(&clock), journal_(&journal),
      pci_(identity(model, revision), bars(model.interface)), power_(clock),
      spi_(layout(model.interface), name_ + ".cs1", journal),
      spi_window_(spi_window(model.interface)) {
    if (model.interface == Interface::kBar2) {
        nor_.emplace(name_ + ".cs0", clock, journal);
    }
    if (model.interface == Interface::kIndexed) {
        phy_.emplace(PhyModel{model.generation, model.ports, revision}, name_, clock, journal);
    }
    reset();
}

std::uint32_t Adapter::config_read(std::uint32_t offset, int width) {
    return has_power() ? pci_.read(offset, width) : all_ones(width);
}

void Adapter::config_write(std::uint32_t offset, std::uint32_t value, int width) {
    if (has_power()) {
        pci_.write(offset, value, width);
    }
}

void Adapter::add_power_fault(const PowerFault& fault) {
    power_.add(fault);
    if (spi_.chip() != nullptr) {
        spi_.chip()->expect_power_loss();
    }
    if (nor_ && nor_->chip() != nullptr) {
        nor_->chip()->expect_power_loss();
    }
}

void Adapter::power_up() {
    power_.turn_on();
    reset();
}

void Adapter::reset() {
    auto spi_chip = spi_.detach();
    spi_ = SpiController(layout(model_->interface), name_ + ".cs1", *journal_);
    if (spi_chip) {
        spi_chip->power_up();
    }
    spi_.attach(std::move(spi_chip));
    if (nor_) {
        auto nor_chip = nor_->detach();
        nor_.emplace(name_ + ".cs0", *clock_, *journal_);
        if (nor_chip) {
            nor_chip->power_up();
        }
        nor_->attach(std::move(nor_chip));
    }
    if (phy_) {
        phy_->power_up();
    }
    index_ = 0;
    set_up_ = model_->generation == 2 ? SetUp::kDone : SetUp::kNone;
}

bool Adapter::has_power() {
    if (power_.stays()) {
        return true;
    }
    for (;;) {
        const Power::Change change = power_.next_change();
        forget_ended_changes(change.at_ns);
        switch (change.event) {
        case Power::Event::kNone:
            return power_.is_on();
        case Power::Event::kLost:
            lose_power();
            break;
        case Power::Event::kBack:
            reset();
            report_power("power is back");
            break;
        }
    }
}

void Adapter::forget_ended_changes(std::uint64_t now_ns) {
    if (spi_.chip() != nullptr) {
        spi_.chip()->forget_ended_change(now_ns);
    }
    if (nor_ && nor_->chip() != nullptr) {
        nor_->chip()->forget_ended_change(now_ns);
    }
}

void Adapter::lose_power() {
    if (spi_.chip() != nullptr) {
        spi_.chip()->lose_power(accesses_);
    }
    if (nor_ && nor_->chip() != nullptr) {
        nor_->chip()->lose_power(accesses_);
    }
    report_power("power is lost");
}

void Adapter::report_power(std::string_view what) {
    if (journal_->wants_cycles()) {
        journal_->cycle(name_ + "  " + std::string(what));
    }
    if (journal_->probe() != nullptr) {
        journal_->probe()->on_event(name_ + ": " + std::string(what));
    }
}

std::uint32_t Adapter::read(PciFunction::Location at, int width) {
    ++accesses_;
    if (access_clock_ != nullptr) {
        access_clock_->advance(access_times_.read_ns, TimeUse::kRead);
    }
    std::uint32_t value = all_ones(width);
    if (has_power()) {
        if (power_.goes_in(accesses_)) {
            lose_power();
        } else {
            value = carry_out_read(at, width);
        }
    }
    if (journal_->wants_registers()) {
        log('>', at, value, width);
    }
    if (journal_->probe() != nullptr) {
        journal_->probe()->on_register_access(name_, {false, at.bar, at.offset, value});
    }
    return value;
}

void Adapter::write(PciFunction::Location at, std::uint32_t value, int width) {
    ++accesses_;
    if (access_clock_ != nullptr) {
        access_clock_->advance(access_times_.write_ns, TimeUse::kWrite);
    }
    if (journal_->wants_registers()) {
        log('<', at, value, width);
    }
    if (journal_->probe() != nullptr) {
        journal_->probe()->on_register_access(name_, {true, at.bar, at.offset, value});
    }
    if (!has_power()) {
        return;
    }
    carry_out_write(at, value, width);
    // What this very write has started is cut short, however soon it would have ended.
    if (power_.goes_in(accesses_)) {
        lose_power();
    }
}

std::uint32_t Adapter::carry_out_read(PciFunction::Location at, int width) {
    const bool window = nor_ && at.bar == 0;
    const bool whole = width == 4 && at.offset % 4 == 0;
    if (!whole && (!window || width != 2 || at.offset % 2 != 0)) {
        complain("read of " + std::to_string(width) + " bytes", at);
        return 0;
    }
    return window ? read_window(at.offset, width) : read_register(at);
}

std::uint32_t Adapter::read_window(std::uint32_t offset, int width) {
    const std::uint32_t low = nor_->read_window(offset);
    return width == 2 ? low : low | std::uint32_t{nor_->read_window(offset + 2)} << 16;
}

bool Adapter::is_nor_register(PciFunction::Location at) const {
    return nor_ && at.bar == 2 && NorController::has_register(at.offset);
}

std::uint32_t Adapter::read_register(PciFunction::Location at) {
    if (spi_window_.contains(at)) {
        return spi_.read(at.offset - spi_window_.first);
    }
    if (is_nor_register(at)) {
        return nor_->read(at.offset);
    }
    if (model_->interface == Interface::kIndexed && at.offset == kIndex) {
        return index_;
    }
    if (model_->interface == Interface::kIndexed && at.offset == kData) {
        return spi_.read(indexed_register("read"));
    }
    if (phy_ && phy_->contains(at.offset)) {
        return phy_->read(at.offset);
    }
    complain("read of a register that is not there", at);
    return 0;
}

void Adapter::carry_out_write(PciFunction::Location at, std::uint32_t value, int width) {
    if (width != 4 || at.offset % 4 != 0) {
        complain("write of " + std::to_string(width) + " bytes", at);
    } else if (spi_window_.contains(at)) {
        spi_.write(at.offset - spi_window_.first, value);
    } else if (is_nor_register(at)) {
        nor_->write(at.offset, value);
    } else if (model_->interface == Interface::kIndexed && at.offset == kIndex) {
        write_index(value);
    } else if (model_->interface == Interface::kIndexed && at.offset == kData) {
        write_behind_index(value);
    } else if (phy_ && phy_->contains(at.offset)) {
        phy_->write(at.offset, value);
    } else {
        complain("write to a register that is not there", at);
    }
}

void Adapter::write_index(std::uint32_t value) {
    index_ = value;
    if (value == kSetUpIndex) {
        set_up_ = SetUp::kSelected;
    } else if (value == 0 && set_up_ == SetUp::kSelected) {
        set_up_ = SetUp::kReleased;
    }
}

void Adapter::write_behind_index(std::uint32_t value) {
    const std::uint32_t reg = indexed_register("write");
    if (reg == kSpiSetUp && set_up_ == SetUp::kReleased) {
        set_up_ = SetUp::kDone;
    } else if (reg == kSpiCommand && set_up_ != SetUp::kDone) {
        journal_->misuse(name_ + ": SPI cycle before the controller was set up");
    }
    spi_.write(reg, value);
}

std::uint32_t Adapter::indexed_register(std::string_view what) {
    const std::uint32_t space = model_->generation == 2 ? 0 : kSpiSpace;
    if ((index_ & 0xFFFFFF00) != space) {
        journal_->misuse(name_ + ": " + std::string(what) + " behind index word " + hex(index_, 8));
    }
    return index_ & 0xFF;
}

void Adapter::log(char direction, PciFunction::Location at, std::uint32_t value, int width) {
    journal_->register_access(name_ + "  BAR" + std::to_string(at.bar) + "+" + hex(at.offset, 5) +
                              ' ' + direction + ' ' + hex(value, 2 * width));
}

void Adapter::complain(std::string_view what, PciFunction::Location at) {
    journal_->misuse(name_ + ": " + std::string(what) + " at BAR" + std::to_string(at.bar) + "+" +
                     hex(at.offset, 5));
}

} // namespace emulator
