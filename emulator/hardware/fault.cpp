#include "hardware/fault.h"

#include <array>
#include <utility>

namespace emulator {
namespace {

constexpr std::array<std::pair<Operation, std::string_view>, 16> kOperations = {
    {
     {Operation::kReadId, "read id"},
     {Operation::kWriteEnable, "write enable"},
     {Operation::kWriteDisable, "write disable"},
     {Operation::kReadStatus, "read status"},
     {Operation::kWriteStatus, "write status"},
     {Operation::kRead, "read"},
     {Operation::kProgram, "program"},
     {Operation::kSectorErase, "sector erase"},
     {Operation::kBlockErase, "block erase"},
     {Operation::kChipErase, "chip erase"},
     {Operation::kQueryProtection, "query protection"},
     {Operation::kProtectSector, "protect sector"},
     {Operation::kUnprotectSector, "unprotect sector"},
     {Operation::kReset, "reset"},
     {Operation::kUnlockBypass, "unlock bypass"},
     {Operation::kBypassReset, "bypass reset"},
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

template <class Table, class Key>
std::string_view name_of(const Table& table, Key key) {
    for (const auto& [value, name] : table) {
        if (value == key) {
            return name;
        }
    }
    return "unknown";
}

template <class Key, class Table>
std::optional<Key> value_of(const Table& table, std::string_view wanted) {
    for (const auto& [value, name] : table) {
        if (name == wanted) {
            return value;
        }
    }
    return std::nullopt;
}

bool touches(const Fault& fault, std::uint32_t address, std::uint64_t length) {
    return !fault.address || (*fault.address >= address && *fault.address - address < length);
}

static_assert(kOperations.size() + 1 == kOperationCount, "all but the unknown one");

} // namespace

std::string_view operation_name(Operation operation) {
    return name_of(kOperations, operation);
}

std::optional<Operation> operation_named(std::string_view name) {
    return value_of<Operation>(kOperations, name);
}

std::string_view fault_kind_name(FaultKind kind) {
    return name_of(kFaultKinds, kind);
}

std::optional<FaultKind> fault_kind_named(std::string_view name) {
    return value_of<FaultKind>(kFaultKinds, name);
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

std::optional<std::uint8_t> Faults::search(FaultKind kind) const {
    for (const Counted& c : faults_) {
        if (c.strikes && c.fault.kind == kind) {
            return c.fault.mask;
        }
    }
    return std::nullopt;
}

} // namespace emulator
