// Faults of hardware as data: what goes wrong, on which operation, where and how often.
#pragma once

#include "operation.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace emulator {

/// What goes wrong.
enum class FaultKind : std::uint8_t {
    kControllerBusy, ///< the controller never ends the cycle
    kNeverReady,     ///< the chip stays busy after the operation
    kIgnored,        ///< the chip does not see the operation
    kNotStored,      ///< the chip accepts the operation and stores nothing
    kStuckBits,      ///< bits under the mask do not change when programmed or erased
    kWrongData,      ///< bits under the mask come back inverted
    kNoAnswer,       ///< the chip's output stays idle
};

/// The kinds' names in machine files.
std::vector<std::string_view> fault_kind_names();
std::string_view fault_kind_name(FaultKind kind);
std::optional<FaultKind> fault_kind_named(std::string_view name);

/// What sort of chip has a fault.
enum class ChipKind : std::uint8_t { kSpi, kNor };

/// True for kinds that look at the mask.
bool has_mask(FaultKind kind);

/// The operations of such a chip that a fault of the kind changes anything about.
std::vector<std::string_view> operations_of(ChipKind chip, FaultKind kind);

/// One fault. It strikes operations `on` (any when absent) that touch `address` (any when absent),
/// from the `nth` of them on (the first is 1), `times` times (0: for ever).
struct Fault {
    FaultKind kind = FaultKind::kIgnored;
    std::optional<Operation> on;
    std::optional<std::uint32_t> address;
    std::uint64_t nth = 1;
    std::uint64_t times = 0;
    std::uint8_t mask = 0xFF;
};

/// The faults of one chip and how often each was met.
class Faults {
  public:
    void add(const Fault& fault) { faults_.push_back({fault, 0}); }
    void clear() { faults_.clear(); }
    bool empty() const { return faults_.empty(); }

    /// True when the fault, by the order of adding, has changed anything so far.
    bool has_struck(std::size_t i) const { return faults_[i].struck; }

    /// The kinds that strike the running operation and change something about it.
    std::vector<FaultKind> at_work() const;

    /// Notes an operation that starts and finds out which faults strike it. `address` and `length`
    /// are the bytes that it touches; a length of 0 means that it touches none in particular.
    void begin(Operation operation, std::uint32_t address, std::uint64_t length);

    /// The mask of the fault of that kind that strikes the running operation; absent without one.
    std::optional<std::uint8_t> striking(FaultKind kind) const {
        return faults_.empty() ? std::nullopt : search(kind);
    }

  private:
    struct Counted {
        Fault fault;
        std::uint64_t met;
        bool strikes = false;
        mutable bool struck = false; ///< noted when somebody asks for it
    };
    std::optional<std::uint8_t> search(FaultKind kind) const;

    std::vector<Counted> faults_;
};

} // namespace emulator
