#include "fault.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace emulator {
namespace {

/// What an operation is, as far as faults are concerned.
struct OperationTraits {
    Operation operation;
    std::string_view name;
    bool on_spi; ///< sent to SPI flash by the program, so that faults can be aimed at it
    bool on_nor;
    bool addressed; ///< touches bytes of the chip
    bool changes;   ///< programs or erases them
    bool stores;    ///< changes something that the chip keeps
    bool answers;   ///< sends bytes
};

constexpr std::array<OperationTraits, 18> kOperations = {
    {
     // operation, name, on SPI and NOR flash; is addressed, changes, stores, answers
        {Operation::kReadId, "read id", true, true, false, false, false, true},
     {Operation::kWriteEnable, "write enable", true, false, false, false, false, false},
     {Operation::kWriteDisable, "write disable", true, false, false, false, false, false},
     {Operation::kStatusEnable, "status enable", false, false, false, false, false, false},
     {Operation::kReadStatus, "read status", true, false, false, false, false, true},
     {Operation::kWriteStatus, "write status", true, false, false, false, true, false},
     {Operation::kRead, "read", true, true, true, false, false, true},
     {Operation::kProgram, "program", true, true, true, true, true, false},
     {Operation::kProgramWord, "program word", false, false, true, true, true, false},
     {Operation::kSectorErase, "sector erase", true, true, true, true, true, false},
     {Operation::kBlockErase, "block erase", true, false, true, true, true, false},
     {Operation::kChipErase, "chip erase", true, true, true, true, true, false},
     {Operation::kQueryProtection, "query protection", true, false, true, false, false, true},
     {Operation::kProtectSector, "protect sector", true, false, false, false, true, false},
     {Operation::kUnprotectSector, "unprotect sector", true, false, false, false, true, false},
     {Operation::kReset, "reset", false, true, false, false, false, false},
     {Operation::kUnlockBypass, "unlock bypass", false, true, false, false, false, false},
     {Operation::kBypassReset, "bypass reset", false, true, false, false, false, false},
     }
};

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

static_assert(kOperations.size() + 1 == kOperationCount, "all but the unknown one");

} // namespace

std::string_view operation_name(Operation operation) {
    const auto* found = std::ranges::find(kOperations, operation, &OperationTraits::operation);
    return found == kOperations.end() ? "unknown" : found->name;
}

std::optional<Operation> operation_named(std::string_view name) {
    const auto* found = std::ranges::find(kOperations, name, &OperationTraits::name);
    return found == kOperations.end() ? std::nullopt : std::optional(found->operation);
}

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

bool has_address(Operation operation) {
    const auto* found = std::ranges::find(kOperations, operation, &OperationTraits::operation);
    return found != kOperations.end() && found->addressed;
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
