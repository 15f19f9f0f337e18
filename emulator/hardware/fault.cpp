#include "fault.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace emulator {
namespace {

constexpr std::array<std::pair<FaultKind, std::string_view>, 7> kFaultKinds = {
    {
     {FaultKind::kControllerBusy, "controller busy"},
     {FaultKind::kNeverReady, "never ready"},
     {FaultKind::kIgnored, "ignored"},
     {FaultKind::kNotStored, "not stored"},
     {FaultKind::kStuckBits, "stuck bits"},
     {FaultKind::kWrongData, "wrong data"},
     {FaultKind::kNoAnswer, "no answer"},
     }
};

bool touches(const Fault& fault, std::uint32_t address, std::uint64_t length) {
    return !fault.address || (*fault.address >= address && *fault.address - address < length);
}

} // namespace

std::vector<std::string_view> fault_kind_names() {
    std::vector<std::string_view> names;
    std::ranges::transform(kFaultKinds, std::back_inserter(names),
                           [](const auto& row) { return row.second; });
    return names;
}

std::string_view fault_kind_name(FaultKind kind) {
    return std::ranges::find(kFaultKinds, kind, [](const auto& row) { return row.first; })->second;
}

std::optional<FaultKind> fault_kind_named(std::string_view name) {
    const auto* found =
        std::ranges::find(kFaultKinds, name, [](const auto& row) { return row.second; });
    return found == kFaultKinds.end() ? std::nullopt : std::optional(found->first);
}

bool has_mask(FaultKind kind) {
    return kind == FaultKind::kStuckBits || kind == FaultKind::kWrongData;
}

std::vector<std::string_view> operations_of(ChipKind chip, FaultKind kind) {
    std::vector<std::string_view> names;
    for (const OperationTraits& o : kOperations) {
        const bool known = chip == ChipKind::kSpi ? o.on_spi : o.on_nor;
        // Reading parallel flash is no command: nothing of it can be ignored or go on.
        const bool command = chip == ChipKind::kSpi || o.operation != Operation::kRead;
        const bool concerned = kind == FaultKind::kNotStored   ? o.stores
                               : kind == FaultKind::kStuckBits ? o.changes
                               : kind == FaultKind::kWrongData || kind == FaultKind::kNoAnswer
                                   ? o.answers
                                   : command;
        if (known && concerned) {
            names.push_back(o.name);
        }
    }
    return names;
}

void Faults::begin(Operation operation, std::uint32_t address, std::uint64_t length) {
    for (Counted& c : faults_) {
        c.strikes = false;
        const bool met =
            (!c.fault.on || *c.fault.on == operation) && touches(c.fault, address, length);
        if (!met) {
            continue;
        }
        ++c.met;
        c.strikes =
            c.met >= c.fault.nth && (c.fault.times == 0 || c.met < c.fault.nth + c.fault.times);
    }
}

std::vector<FaultKind> Faults::at_work() const {
    std::vector<FaultKind> kinds;
    for (const Counted& c : faults_) {
        if (c.strikes && c.struck) {
            kinds.push_back(c.fault.kind);
        }
    }
    return kinds;
}

std::optional<std::uint8_t> Faults::search(FaultKind kind) const {
    for (const Counted& c : faults_) {
        if (c.strikes && c.fault.kind == kind) {
            c.struck = true;
            return c.fault.mask;
        }
    }
    return std::nullopt;
}

} // namespace emulator
