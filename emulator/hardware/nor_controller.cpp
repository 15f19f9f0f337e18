#include "nor_controller.h"

#include "hex.h"

#include <utility>

namespace emulator {
namespace {

constexpr std::uint32_t kWindowControl = 0x8420;
constexpr std::uint32_t kWindowHigh = 0x8424;
constexpr std::uint32_t kWindowBase = 0x8428;
/// Cycles 1 to 3 and, 0x18 behind them, 4 to 6: three address registers, then three data registers.
constexpr std::uint32_t kCycleRegisters = 0xC910;
constexpr std::uint32_t kCycleRegistersEnd = 0xC940;
constexpr std::uint32_t kSequenceControl = 0xC940;
constexpr std::uint32_t kSequenceStatus = 0xC944;
constexpr std::uint32_t kInterfaceControl = 0xC950;
constexpr std::uint32_t kReady = 0xC954;
constexpr std::uint32_t kMode = 0x10100;

constexpr std::uint32_t kEnded = 0x1;
constexpr std::uint32_t kReadyBit = 0x20000;
constexpr std::uint32_t kInterfaceOn = 0x3;
constexpr std::uint32_t kResetPin = 0x10;
constexpr std::uint64_t kResetPulseNs = 10'000;
constexpr std::uint32_t kModeNorOff = 0x80;

constexpr std::uint32_t kWindowReads = 0x1000;
constexpr std::uint32_t kWindowCommands = 0x3001;
constexpr std::uint32_t kWindowSize = 0x2000;
constexpr std::uint32_t kWindowStart = 0xFC000000;
constexpr std::uint32_t kWindowOpen = 0x1;

} // namespace

NorController::NorController(std::string place, const Clock& clock, Journal& journal)
    : place_(std::move(place)), clock_(&clock), journal_(&journal), mode_(kModeNorOff) {}

bool NorController::has_register(std::uint32_t offset) {
    switch (offset) {
    case kWindowControl:
    case kWindowHigh:
    case kWindowBase:
    case kSequenceControl:
    case kSequenceStatus:
    case kInterfaceControl:
    case kReady:
    case kMode:
        return true;
    default:
        return offset >= kCycleRegisters && offset < kCycleRegistersEnd;
    }
}

std::uint32_t* NorController::find_cycle_register(std::uint32_t offset, bool written) {
    constexpr std::uint32_t kHalf = 0x18;
    constexpr std::uint32_t kDataRegisters = 0x0C;
    if (offset < kCycleRegisters || offset >= kCycleRegistersEnd) {
        return nullptr;
    }
    const std::uint32_t place = (offset - kCycleRegisters) % kHalf;
    Cycle& cycle = cycles_[(offset - kCycleRegisters) / kHalf * 3 + place % kDataRegisters / 4];
    bool& loaded = place < kDataRegisters ? cycle.has_address : cycle.has_data;
    loaded = loaded || written;
    return place < kDataRegisters ? &cycle.address : &cycle.data;
}

std::uint32_t NorController::read(std::uint32_t offset) {
    switch (offset) {
    case kWindowControl:
        return window_control_;
    case kWindowHigh:
        return window_high_;
    case kWindowBase:
        return window_base_;
    case kSequenceStatus:
        return status_;
    case kInterfaceControl:
        return interface_;
    case kReady:
        return chip_ == nullptr || chip_->ready() ? kReadyBit : 0;
    case kMode:
        return mode_;
    default:
        break;
    }
    const std::uint32_t* value = find_cycle_register(offset, false);
    return value != nullptr ? *value : 0;
}

void NorController::write(std::uint32_t offset, std::uint32_t value) {
    switch (offset) {
    case kWindowControl:
        if (value != kWindowReads && value != kWindowCommands) {
            complain("window control " + hex(value, 8));
        }
        window_control_ = value;
        return;
    case kWindowHigh:
        if (value != 0) {
            complain("window high " + hex(value, 8));
        }
        window_high_ = value;
        return;
    case kWindowBase:
        window_base_ = value;
        return;
    case kSequenceControl:
        start(value);
        return;
    case kSequenceStatus:
        status_ &= ~value;
        return;
    case kInterfaceControl:
        control_interface(value);
        return;
    case kMode:
        mode_ = value;
        return;
    default:
        break;
    }
    if (std::uint32_t* cycle = find_cycle_register(offset, true)) {
        *cycle = value;
    } else {
        complain("write to the ready register");
    }
}

void NorController::control_interface(std::uint32_t value) {
    const std::uint32_t before = std::exchange(interface_, value);
    if ((~before & value & kResetPin) != 0) {
        reset_since_ns_ = clock_->now_ns();
    }
    if ((before & ~value & kResetPin) == 0) {
        return;
    }
    if (clock_->now_ns() - reset_since_ns_ < kResetPulseNs) {
        complain("reset pulse shorter than 10 us");
        return;
    }
    was_reset_ = true;
    running_ = false;
    if (chip_ != nullptr) {
        chip_->reset();
    }
}

void NorController::start(std::uint32_t command) {
    const std::size_t count = command >> 24;
    if ((command & 0x00FFFFFF) != 0x010000 || count == 0 || count > kCycles) {
        complain("sequence command " + hex(command, 8));
        return;
    }
    if (running_ || status_ != 0) {
        complain(running_ ? "sequence started while another runs"
                          : "sequence started before the end of the last was acknowledged");
    }
    if ((interface_ & kInterfaceOn) != kInterfaceOn || (mode_ & kModeNorOff) != 0 || !was_reset_) {
        complain("sequence started before the interface was set up");
        return;
    }
    Operation operation = Operation::kUnknown;
    for (std::size_t i = 0; i < count; ++i) {
        Cycle& cycle = cycles_[i];
        if (!cycle.has_address || !cycle.has_data) {
            complain("sequence with a cycle " + std::to_string(i + 1) + " of the last one");
        }
        if (chip_ != nullptr) {
            operation = chip_->write(cycle.address, static_cast<std::uint16_t>(cycle.data));
        }
        if (journal_->probe() != nullptr) {
            journal_->probe()->on_nor_cycle(
                place_, {true, cycle.address, static_cast<std::uint16_t>(cycle.data), operation},
                chip_.get());
        }
    }
    for (Cycle& cycle : cycles_) {
        cycle.has_address = false;
        cycle.has_data = false;
    }
    running_ = chip_ != nullptr && chip_->holds_controller();
    status_ = running_ ? 0 : kEnded;
    if (journal_->wants_cycles()) {
        log(count, operation);
    }
}

std::uint16_t NorController::read_window(std::uint32_t offset) {
    constexpr std::uint16_t kPulledUp = 0xFFFF;
    const std::uint32_t page = window_base_ - kWindowOpen - kWindowStart;
    if (window_control_ != kWindowReads || (mode_ & kModeNorOff) != 0 ||
        (window_base_ & kWindowOpen) == 0 || window_base_ < kWindowStart ||
        page % kWindowSize != 0) {
        complain("window read with control " + hex(window_control_, 8) + ", base " +
                 hex(window_base_, 8) + ", mode " + hex(mode_, 8));
        return kPulledUp;
    }
    if (chip_ == nullptr) {
        return kPulledUp;
    }
    const std::uint32_t address = (page + offset) / 2;
    const Operation operation =
        chip_->shows_identification() ? Operation::kReadId : Operation::kRead;
    const std::uint16_t value = chip_->read(address);
    if (journal_->wants_cycles()) {
        journal_->cycle(place_ + "  " + hex(address, 6) + " < " + hex(value, 4) + "  " +
                        std::string(operation_name(operation)));
    }
    if (journal_->probe() != nullptr) {
        journal_->probe()->on_nor_cycle(place_, {false, address, value, operation}, chip_.get());
    }
    return value;
}

void NorController::log(std::size_t cycles, Operation operation) {
    std::string line = place_;
    for (std::size_t i = 0; i < cycles; ++i) {
        line.append(i == 0 ? "  " : ", ");
        line.append(hex(cycles_[i].address, 6));
        line.append(" > ");
        line.append(hex(cycles_[i].data, 4));
    }
    line.append("  ");
    line.append(operation_name(operation));
    journal_->cycle(line);
}

void NorController::complain(std::string_view what) {
    journal_->misuse(place_ + ": " + std::string(what));
}

} // namespace emulator
