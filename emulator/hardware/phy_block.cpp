#include "phy_block.h"

#include "hex.h"
#include "phy_pattern.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <utility>

namespace emulator {
namespace {

/// AHCI registers.
constexpr std::uint32_t kHostControl = 0x04;
constexpr std::uint32_t kPortsImplemented = 0x0C;
constexpr std::uint32_t kAhciEnable = 0x80000000;
constexpr std::uint32_t kInterruptEnable = 0x2; ///< as firmware leaves it; not ours to change

/// Offsets of the index registers; the data register follows each.
constexpr std::array<std::uint32_t, 1> kSharedPair = {0xB0};
constexpr std::array<std::uint32_t, 2> kPortPairs = {0x178, 0x1F8};

std::span<const std::uint32_t> pairs(const PhyModel& model) {
    if (model.generation == 2) {
        return kPortPairs;
    }
    return kSharedPair;
}

constexpr std::uint32_t kLoad = 0x01;
constexpr std::uint32_t kReset = 0x4000;
constexpr std::uint32_t kStart = 0x8000;
constexpr std::uint32_t kPass = 0x2000;
constexpr std::uint32_t kLock = 0x1000;

/// How long a port takes to settle after the load bit changes and after the start. Firmware's
/// timers tick coarsely, so a millisecond that is a little short counts.
constexpr std::uint64_t kSettleNs = 990'000;

/// What the checker counts between two latches.
constexpr std::uint32_t kCountPerLatch = 100'000;

/// A pattern and the number that stands for it.
struct Pattern {
    std::uint32_t number;
    std::string_view name;
};

/// The types of the control word. Pattern register 5 says which pattern kSelected is; kCharacters
/// sends what the pattern registers hold.
constexpr std::uint32_t kSelected = 0xE;
constexpr std::uint32_t kCharacters = 0xF;
constexpr std::array<Pattern, 10> kPatterns = {
    {
     {0x0, "nothing"},
     {0x1, "shift register"},
     {0x2, "low transition density"},
     {0x3, "high transition density"},
     {0x4, "low frequency spectral content"},
     {0x5, "switching output"},
     {0x6, "lone bit"},
     {0x7, "composite"},
     {kSelected, ""},
     {kCharacters, ""},
     }
};

/// What a PHY test register is for.
enum class Role : std::uint8_t {
    kRate,
    kControl,
    kPattern,
    kLatch,
    kCounter,
    kErrors,
    kPreparation,
};

constexpr std::array<std::pair<PhyFaultKind, std::string_view>, 4> kPhyFaultKinds = {
    {
     {PhyFaultKind::kNoPass, "no pass"},
     {PhyFaultKind::kNoLock, "no lock"},
     {PhyFaultKind::kErrors, "errors"},
     {PhyFaultKind::kCount, "count"},
     }
};

} // namespace

std::vector<std::string_view> phy_fault_kind_names() {
    std::vector<std::string_view> names;
    std::ranges::transform(kPhyFaultKinds, std::back_inserter(names),
                           [](const auto& row) { return row.second; });
    return names;
}

std::optional<PhyFaultKind> phy_fault_kind_named(std::string_view name) {
    for (const auto& [kind, known] : kPhyFaultKinds) {
        if (known == name) {
            return kind;
        }
    }
    return std::nullopt;
}

struct PhyBlock::Register {
    std::uint32_t number;
    Role role;
    std::string_view name;

    bool readable() const {
        return role == Role::kControl || role == Role::kLatch || role == Role::kCounter ||
               role == Role::kErrors;
    }
};

struct PhyBlock::Rate {
    std::uint32_t word;
    std::string_view name;
};

const PhyBlock::Register* PhyBlock::find_register(std::uint32_t number) {
    static constexpr std::array<Register, 18> kRegisters = {
        {
         {0x02, Role::kRate, "rate"},
         {0x95, Role::kControl, "test control"},
         {0x96, Role::kPattern, "pattern 0"},
         {0x97, Role::kPattern, "pattern 1"},
         {0x98, Role::kPattern, "pattern 2"},
         {0x99, Role::kPattern, "pattern 3"},
         {0x9A, Role::kPattern, "pattern 4"},
         {0x9B, Role::kPattern, "pattern 5"},
         {0x9C, Role::kLatch, "PRBS counter latch"},
         {0x9D, Role::kCounter, "PRBS counter high"},
         {0x9E, Role::kCounter, "PRBS counter low"},
         {0x9F, Role::kErrors, "error counter high"},
         {0xA0, Role::kErrors, "error counter low"},
         {0xA2, Role::kPreparation, "6 Gb/s preparation"},
         {0xA9, Role::kPreparation, "6 Gb/s preparation"},
         {0xD6, Role::kPreparation, "6 Gb/s preparation"},
         {0xDB, Role::kPreparation, "6 Gb/s preparation"},
         {0xED, Role::kPreparation, "6 Gb/s preparation"},
         }
    };
    const auto* found = std::ranges::find(kRegisters, number, &Register::number);
    return found == kRegisters.end() ? nullptr : found;
}

const PhyBlock::Rate* PhyBlock::find_rate(std::uint32_t word) const {
    static constexpr std::array<Rate, 3> kUsual = {
        {{0x50, "1.5 Gb/s"}, {0x60, "3 Gb/s"}, {0x70, "6 Gb/s"}}
    };
    static constexpr std::array<Rate, 3> kRevision10 = {
        {{0x10, "1.5 Gb/s"}, {0x20, "3 Gb/s"}, {0x40, "6 Gb/s"}}
    };
    const bool own_words = model_.generation == 3 && model_.revision == 0x10;
    const auto& rates = own_words ? kRevision10 : kUsual;
    const auto* found = std::ranges::find(rates, word, &Rate::word);
    return found == rates.end() ? nullptr : found;
}

PhyBlock::PhyBlock(PhyModel model, std::string place, const Clock& clock, Journal& journal)
    : model_(model), place_(std::move(place)), clock_(&clock), journal_(&journal),
      host_control_(kInterruptEnable), ports_implemented_((1U << model.ports) - 1) {}

void PhyBlock::power_up() {
    host_control_ = kInterruptEnable;
    index_ = {};
    ports_ = {};
}

bool PhyBlock::contains(std::uint32_t offset) const {
    return offset == kHostControl || offset == kPortsImplemented ||
           std::ranges::any_of(pairs(model_), [&](std::uint32_t index) {
               return offset == index || offset == index + 4;
           });
}

std::uint32_t PhyBlock::read(std::uint32_t offset) {
    if (offset == kHostControl || offset == kPortsImplemented) {
        return read_ahci(offset);
    }
    const auto known = pairs(model_);
    for (std::size_t pair = 0; pair < known.size(); ++pair) {
        if (offset == known[pair]) {
            return index_[pair];
        }
        if (offset == known[pair] + 4) {
            const Target target = select(pair);
            if (!target) {
                return 0;
            }
            std::string meaning;
            const std::uint32_t value = read_register(target, meaning);
            log(target, '<', value, meaning);
            return value;
        }
    }
    return 0;
}

void PhyBlock::write(std::uint32_t offset, std::uint32_t value) {
    if (offset == kHostControl || offset == kPortsImplemented) {
        write_ahci(offset, value);
        return;
    }
    const auto known = pairs(model_);
    for (std::size_t pair = 0; pair < known.size(); ++pair) {
        if (offset == known[pair]) {
            index_[pair] = value;
        } else if (offset == known[pair] + 4) {
            if (const Target target = select(pair)) {
                std::string meaning;
                write_register(target, value, meaning);
                log(target, '>', value, meaning);
            }
        }
    }
}

std::uint32_t PhyBlock::read_ahci(std::uint32_t offset) {
    const bool control = offset == kHostControl;
    const std::uint32_t value = control ? host_control_ : ports_implemented_;
    if (journal_->wants_cycles()) {
        const std::string name = control ? "host control        " : "ports implemented   ";
        journal_->cycle(place_ + ".ahci  " + name + hex(offset, 2) + " < " + hex(value, 8));
    }
    return value;
}

void PhyBlock::write_ahci(std::uint32_t offset, std::uint32_t value) {
    if (offset != kHostControl || (value | kAhciEnable) != (host_control_ | kAhciEnable)) {
        complain("AHCI register " + hex(offset, 2) + " written with " + hex(value, 8));
        return;
    }
    host_control_ = value;
    if (journal_->wants_cycles()) {
        journal_->cycle(place_ + ".ahci  host control        " + hex(offset, 2) + " > " +
                        hex(value, 8) + ((value & kAhciEnable) != 0 ? "  AHCI on" : "  AHCI off"));
    }
}

PhyBlock::Target PhyBlock::select(std::size_t pair) {
    const std::uint32_t index = index_[pair];
    const std::uint32_t select = index >> 8;
    const Register* reg = find_register(index & 0xFF);
    const bool own_pair = model_.generation == 2;
    // Behind a pair of their own, ports have numbers in the preparation alone.
    const bool numbered = reg != nullptr && reg->role == Role::kPreparation;
    const bool known =
        reg != nullptr && (own_pair ? select == (numbered ? pair : 0) : select < ports_.size());
    if (!known) {
        complain("PHY test register " + hex(index, 3) + " is none that is there");
        return {};
    }
    const Target target{&ports_[own_pair ? pair : select], reg, own_pair ? pair : select};
    if (target.number >= model_.ports) {
        complain(target, "the port is not there");
        return {};
    }
    if ((host_control_ & kAhciEnable) == 0) {
        complain(target, "used while AHCI is off");
    }
    if (clock_->now_ns() < target.port->settled_ns) {
        complain(target, "used before the port has settled");
    }
    return target;
}

std::uint32_t PhyBlock::read_register(const Target& target, std::string& meaning) {
    if (!target.reg->readable()) {
        complain(target, "can only be written");
        return 0;
    }
    if (target.reg->role == Role::kControl) {
        return read_status(target, meaning);
    }
    if (!target.port->running) {
        complain(target, "read while no pattern runs");
        return 0;
    }
    if (target.reg->role == Role::kErrors) {
        return read_errors(target);
    }
    if (target.reg->role == Role::kCounter) {
        return read_counter(target);
    }
    const PhyFault* fault = striking(PhyFaultKind::kCount, target.number);
    target.port->counter = fault != nullptr ? fault->value : kCountPerLatch;
    target.port->unread_halves = 3;
    return 0;
}

std::uint32_t PhyBlock::read_status(const Target& target, std::string& meaning) {
    const Port& port = *target.port;
    if (!port.running) {
        return port.control;
    }
    const bool pass = striking(PhyFaultKind::kNoPass, target.number) == nullptr;
    const bool lock = striking(PhyFaultKind::kNoLock, target.number) == nullptr;
    meaning = pass ? "pass, " : "no pass, ";
    meaning.append(lock ? "lock" : "no lock");
    return port.control | (pass ? kPass : 0) | (lock ? kLock : 0);
}

std::uint32_t PhyBlock::read_errors(const Target& target) {
    constexpr std::uint32_t kHigh = 0x9F;
    Port& port = *target.port;
    if (target.reg->number == kHigh) {
        const PhyFault* fault = striking(PhyFaultKind::kErrors, target.number);
        port.errors = fault != nullptr ? fault->value : 0;
        port.error_low_is_fresh = true;
        return port.errors >> 16;
    }
    if (!std::exchange(port.error_low_is_fresh, false)) {
        complain(target, "read without the high half before it");
    }
    return port.errors & 0xFFFF;
}

std::uint32_t PhyBlock::read_counter(const Target& target) {
    constexpr std::uint32_t kHigh = 0x9D;
    Port& port = *target.port;
    const bool high = target.reg->number == kHigh;
    const std::uint8_t half = high ? 2 : 1;
    if ((port.unread_halves & half) == 0) {
        complain(target, "read without the latch read");
    }
    port.unread_halves &= static_cast<std::uint8_t>(~half);
    return high ? port.counter >> 16 : port.counter & 0xFFFF;
}

void PhyBlock::write_register(const Target& target, std::uint32_t value, std::string& meaning) {
    switch (target.reg->role) {
    case Role::kRate:
        write_rate(target, value, meaning);
        return;
    case Role::kControl:
        write_control(target, value, meaning);
        return;
    case Role::kPattern:
        write_pattern(target, value);
        return;
    case Role::kPreparation:
        write_preparation(target, value);
        return;
    default:
        complain(target, "can only be read");
        return;
    }
}

void PhyBlock::write_rate(const Target& target, std::uint32_t word, std::string& meaning) {
    Port& port = *target.port;
    if (port.running || port.in_reset || !port.was_reset) {
        complain(target, "written without a reset before it");
    }
    const Rate* rate = find_rate(word & ~kLoad);
    if (rate == nullptr) {
        complain(target, "no rate has the word " + hex(word, 4));
        return;
    }
    meaning = rate->name;
    const bool was_loading = (port.rate & kLoad) != 0;
    const bool loading = (word & kLoad) != 0;
    if (loading || was_loading) {
        settle(port);
        if ((port.rate ^ word) != kLoad) {
            complain(target, "changed together with the load bit");
        }
    }
    if (loading) {
        meaning.append(", load");
    } else if (was_loading) {
        meaning.append(", loaded");
        load_rate(target, *rate);
    }
    port.rate = word;
}

void PhyBlock::load_rate(const Target& target, const Rate& rate) {
    constexpr std::string_view kFastest = "6 Gb/s";
    constexpr std::size_t kSteps = 6;
    const std::size_t prepared = std::exchange(target.port->preparation, 0);
    if (rate.name == kFastest && wants_preparation(target.number) && prepared != kSteps) {
        complain(target, "6 Gb/s loaded without its preparation");
    }
    target.port->rate_loaded = true;
}

void PhyBlock::write_control(const Target& target, std::uint32_t word, std::string& meaning) {
    Port& port = *target.port;
    if (word == kReset) {
        const std::size_t preparation = port.preparation;
        port = Port{};
        port.preparation = preparation;
        port.in_reset = true;
        meaning = "reset";
    } else if (word == 0) {
        if (!port.in_reset) {
            complain(target, "released without a reset");
        }
        port.was_reset = std::exchange(port.in_reset, false);
        meaning = "release";
    } else {
        start(target, word, meaning);
    }
    port.control = word;
}

void PhyBlock::start(const Target& target, std::uint32_t word, std::string& meaning) {
    constexpr std::uint32_t kTypeBits = 0xF0;
    constexpr std::uint8_t kAllLoaded = 0x3F;
    Port& port = *target.port;
    const auto* pattern = std::ranges::find(kPatterns, (word & kTypeBits) >> 4, &Pattern::number);
    if ((word & ~kTypeBits) != kStart || pattern == kPatterns.end()) {
        complain(target, "written with " + hex(word, 4));
        return;
    }
    if (!port.was_reset || !port.rate_loaded) {
        complain(target, "started without a reset and a rate");
    }
    if (pattern->number != 0 && port.loaded != kAllLoaded) {
        complain(target, "started without a pattern");
    }
    std::string sent(pattern->name);
    if (pattern->number == kSelected) {
        sent = describe_selection(port.pattern[5]);
        if (sent.empty()) {
            complain(target, "pattern 5 selects " + hex(port.pattern[5], 4));
            return;
        }
    } else if (pattern->number == kCharacters) {
        sent = describe_characters(std::span(port.pattern).last<4>());
    }
    meaning = "start: " + sent;
    port.running = true;
    port.was_reset = false;
    settle(port);
}

void PhyBlock::write_pattern(const Target& target, std::uint32_t value) {
    constexpr std::uint32_t kFirst = 0x96;
    Port& port = *target.port;
    if (port.running) {
        complain(target, "loaded after the start");
        return;
    }
    if (!port.rate_loaded) {
        complain(target, "loaded before the rate");
    }
    if (value > 0xFFFF) {
        complain(target, "written with " + hex(value, 8));
    }
    const std::uint32_t n = target.reg->number - kFirst;
    port.pattern[n] = value;
    port.loaded |= static_cast<std::uint8_t>(1U << n);
}

void PhyBlock::write_preparation(const Target& target, std::uint32_t value) {
    constexpr std::array<std::pair<std::uint32_t, std::uint32_t>, 6> kSteps = {
        {{0xA2, 0x46}, {0xED, 0x2400}, {0xDB, 0}, {0xA9, 0x5556}, {0xD6, 0}, {0xD6, 0x200}}
    };
    std::size_t& made = target.port->preparation;
    if (!wants_preparation(target.number)) {
        complain(target, "written on a port that wants no preparation");
    } else if (made < kSteps.size() && kSteps[made] == std::pair(target.reg->number, value)) {
        ++made;
    } else {
        complain(target, "written out of step with " + hex(value, 4));
    }
}

bool PhyBlock::wants_preparation(std::size_t port) const {
    return model_.generation != 1 && ports_implemented_ == 0xFF && port < 2;
}

void PhyBlock::settle(Port& port) const {
    port.settled_ns = clock_->now_ns() + kSettleNs;
}

const PhyFault* PhyBlock::striking(PhyFaultKind kind, std::size_t port) {
    const PhyFault* result = nullptr;
    for (Counted& c : faults_) {
        if (c.fault.kind != kind || c.fault.port != port) {
            continue;
        }
        ++c.met;
        const bool over = c.fault.times != 0 && c.met >= c.fault.nth + c.fault.times;
        if (c.met >= c.fault.nth && !over && result == nullptr) {
            result = &c.fault;
        }
    }
    return result;
}

void PhyBlock::log(const Target& target, char direction, std::uint32_t value,
                   std::string_view meaning) {
    if (!journal_->wants_cycles()) {
        return;
    }
    constexpr std::size_t kNameColumns = 20;
    std::string line = place_ + ".phy" + std::to_string(target.number) + "  ";
    line.append(target.reg->name);
    line.append(kNameColumns - target.reg->name.size(), ' ');
    line.append(hex(target.reg->number, 2));
    line.append({' ', direction, ' '});
    line.append(hex(value, 4));
    if (!meaning.empty()) {
        line.append("  ");
        line.append(meaning);
    }
    journal_->cycle(line);
}

void PhyBlock::complain(const Target& target, std::string_view what) {
    std::string text = "phy" + std::to_string(target.number) + " " + std::string(target.reg->name);
    text.append(" (" + hex(target.reg->number, 2) + "): ");
    text.append(what);
    journal_->misuse(place_ + "." + text);
}

void PhyBlock::complain(const std::string& what) {
    journal_->misuse(place_ + ": " + what);
}

} // namespace emulator
