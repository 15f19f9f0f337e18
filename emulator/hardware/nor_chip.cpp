#include "nor_chip.h"

#include "hex.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace emulator {

/// What one write cycle leads to. A step without an address or data takes any.
struct NorChip::Step {
    State from;
    std::optional<std::uint32_t> address;
    std::optional<std::uint16_t> data;
    State to;
    Operation completes; ///< unknown while more cycles follow
};

namespace {

/// Address lines that the unlock cycles look at.
constexpr std::uint32_t kUnlockLines = 0x7FF;

std::string cycle(std::uint32_t address, std::uint16_t data) {
    return "cycle " + hex(address, 6) + " > " + hex(data, 4);
}

} // namespace

NorChip::NorChip(const NorPart& part, std::string place, const Clock& clock, Journal& journal,
                 BusyTimes times, std::span<std::uint8_t> kept)
    : part_(&part), place_(std::move(place)), clock_(&clock), journal_(&journal), times_(times),
      own_(kept.empty() ? part.size : 0, 0xFF), contents_(kept.empty() ? std::span(own_) : kept) {}

const NorChip::Step* NorChip::find_step(State state, std::uint32_t address, std::uint16_t data) {
    using enum State;
    static constexpr std::optional<std::uint32_t> kAny;
    static constexpr std::optional<std::uint16_t> kAnyData;
    static constexpr Step kSteps[] = {
        {kRead,           kAny,  0xF0,     kRead,           Operation::kReset       },
        {kRead,           0x555, 0xAA,     kUnlock1,        Operation::kUnknown     },
        {kIdentification, kAny,  0xF0,     kRead,           Operation::kReset       },
        {kIdentification, 0x555, 0xAA,     kUnlock1,        Operation::kUnknown     },
        {kUnlock1,        0x2AA, 0x55,     kUnlock2,        Operation::kUnknown     },
        {kUnlock2,        0x555, 0x90,     kIdentification, Operation::kReadId      },
        {kUnlock2,        0x555, 0xA0,     kProgram,        Operation::kUnknown     },
        {kUnlock2,        0x555, 0x80,     kErase,          Operation::kUnknown     },
        {kUnlock2,        0x555, 0x20,     kBypass,         Operation::kUnlockBypass},
        {kProgram,        kAny,  kAnyData, kRead,           Operation::kProgram     },
        {kErase,          0x555, 0xAA,     kEraseUnlock1,   Operation::kUnknown     },
        {kEraseUnlock1,   0x2AA, 0x55,     kEraseUnlock2,   Operation::kUnknown     },
        {kEraseUnlock2,   0x555, 0x10,     kRead,           Operation::kChipErase   },
        {kEraseUnlock2,   kAny,  0x30,     kRead,           Operation::kSectorErase },
        {kBypass,         kAny,  0xA0,     kBypassProgram,  Operation::kUnknown     },
        {kBypass,         kAny,  0x90,     kBypassReset,    Operation::kUnknown     },
        {kBypassProgram,  kAny,  kAnyData, kBypass,         Operation::kProgram     },
        {kBypassReset,    kAny,  0x00,     kRead,           Operation::kBypassReset },
    };
    for (const Step& step : kSteps) {
        if (step.from == state && (!step.address || *step.address == (address & kUnlockLines)) &&
            (!step.data || *step.data == data)) {
            return &step;
        }
    }
    return nullptr;
}

Operation NorChip::write(std::uint32_t address, std::uint16_t data) {
    if (!ready()) {
        complain(cycle(address, data) + " while the chip is busy");
        return Operation::kUnknown;
    }
    const Step* step = find_step(state_, address, data);
    if (step == nullptr) {
        complain(cycle(address, data) + " starts or continues no command");
        const bool bypass = state_ == State::kBypass || state_ == State::kBypassReset;
        state_ = bypass ? State::kBypass : State::kRead;
        return Operation::kUnknown;
    }
    const bool bypass = state_ == State::kBypassProgram;
    state_ = step->to;
    if (step->completes == Operation::kUnknown) {
        return Operation::kUnknown;
    }
    ++counts_[static_cast<std::size_t>(step->completes)];
    const NorBlock range = touched(step->completes, 2 * address & (part_->size - 1));
    faults_.begin(step->completes, range.address, range.size);
    holds_controller_ = faults_.striking(FaultKind::kControllerBusy).has_value();
    if (faults_.striking(FaultKind::kIgnored)) {
        state_ = bypass ? State::kBypass : State::kRead;
    } else {
        carry_out(step->completes, address, data);
        stuck_busy_ = stuck_busy_ || faults_.striking(FaultKind::kNeverReady).has_value();
    }
    return step->completes;
}

/// The bytes that a command changes.
NorBlock NorChip::touched(Operation operation, std::uint32_t address) const {
    switch (operation) {
    case Operation::kProgram:
        return {address, 2};
    case Operation::kSectorErase:
        return nor_block(*part_, address);
    case Operation::kChipErase:
        return {0, part_->size};
    default:
        return {0, 0};
    }
}

void NorChip::carry_out(Operation operation, std::uint32_t address, std::uint16_t data) {
    switch (operation) {
    case Operation::kProgram:
        program(offset(address, "program"), data);
        break;
    case Operation::kSectorErase:
        erase(nor_block(*part_, offset(address, "sector erase")));
        break;
    case Operation::kChipErase:
        erase({0, part_->size});
        break;
    default:
        break;
    }
}

void NorChip::program(std::uint32_t at, std::uint16_t data) {
    const auto old = static_cast<std::uint16_t>(contents_[at] | contents_[at + 1] << 8);
    if ((data & ~old) != 0) {
        complain("program of " + hex(data, 4) + " over " + hex(old, 4) + " at " + hex(at, 6) +
                 " sets bits");
    }
    change_.start(contents_, be_busy(times_.program_us));
    if (!faults_.striking(FaultKind::kNotStored)) {
        const std::uint8_t stuck = faults_.striking(FaultKind::kStuckBits).value_or(0);
        change_.changes_byte(at, contents_[at]);
        change_.changes_byte(at + 1, contents_[at + 1]);
        const auto cleared = static_cast<std::uint16_t>(~data & ~(stuck | stuck << 8));
        contents_[at] = static_cast<std::uint8_t>(old & ~cleared);
        contents_[at + 1] = static_cast<std::uint8_t>((old & ~cleared) >> 8);
    }
}

void NorChip::erase(NorBlock block) {
    change_.start(contents_, be_busy(times_.erase_us(block.size)));
    if (!faults_.striking(FaultKind::kNotStored)) {
        const std::uint8_t stuck = faults_.striking(FaultKind::kStuckBits).value_or(0);
        change_.erases(block.address, block.size, stuck);
        for (std::uint32_t at = block.address; at < block.address + block.size; ++at) {
            contents_[at] = static_cast<std::uint8_t>(contents_[at] | ~stuck);
        }
    }
}

std::uint16_t NorChip::read(std::uint32_t address) {
    constexpr std::uint16_t kIdle = 0xFFFF;
    if (!ready()) {
        complain("read at " + hex(address, 6) + " while the chip is busy");
        return 0;
    }
    std::uint16_t value = 0;
    if (shows_identification()) {
        value = address == 0 ? part_->manufacturer : address == 1 ? part_->device : 0;
    } else {
        const std::uint32_t at = offset(address, "read");
        faults_.begin(Operation::kRead, at, 2);
        ++counts_[static_cast<std::size_t>(Operation::kRead)];
        value = static_cast<std::uint16_t>(contents_[at] | contents_[at + 1] << 8);
    }
    if (faults_.striking(FaultKind::kNoAnswer)) {
        return kIdle;
    }
    const std::uint8_t wrong = faults_.striking(FaultKind::kWrongData).value_or(0);
    return static_cast<std::uint16_t>(value ^ (wrong | wrong << 8));
}

bool NorChip::ready() {
    return !stuck_busy_ && clock_->now_ns() >= busy_until_ns_;
}

void NorChip::reset() {
    state_ = State::kRead;
    busy_until_ns_ = 0;
    holds_controller_ = false;
}

void NorChip::power_up() {
    reset();
    stuck_busy_ = false;
}

std::uint64_t NorChip::be_busy(std::uint64_t microseconds) {
    busy_until_ns_ = clock_->now_ns() + 1000 * microseconds;
    return busy_until_ns_;
}

std::uint32_t NorChip::offset(std::uint32_t address, std::string_view what) {
    if (address >= part_->size / 2) {
        complain(std::string(what) + " at " + hex(address, 6) + ", past the end of the chip");
    }
    return 2 * address & (part_->size - 1); // address lines above are not connected
}

void NorChip::complain(std::string_view what) {
    journal_->misuse(place_ + ": " + std::string(what));
}

} // namespace emulator
