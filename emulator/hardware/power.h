// An adapter's power: when it goes, and when it comes back.
#pragma once

#include "clock.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace emulator {

/// Its name in machine files.
inline constexpr std::string_view kPowerFaultKind = "power";

/// One loss of power: in a register access or at a time, whichever is given.
struct PowerFault {
    std::uint64_t nth = 0;    ///< register access of the adapter; 0: at a time
    std::uint64_t at_us = 0;  ///< since the adapter was built
    std::uint64_t off_us = 0; ///< until power is back; 0: it stays away
};

/// The power of one adapter and the faults that take it away.
class Power {
  public:
    explicit Power(const Clock& clock) : clock_(&clock), start_ns_(clock.now_ns()) {}

    void add(const PowerFault& fault) { faults_.push_back({fault, false}); }
    bool has_struck(std::size_t i) const { return faults_[i].struck; }

    /// True without faults.
    bool stays() const { return faults_.empty(); }

    enum class Event : std::uint8_t { kNone, kLost, kBack };
    /// The next thing that has happened to power by now, and when it did.
    struct Change {
        Event event;
        std::uint64_t at_ns;
    };
    Change next_change();

    bool is_on() const { return on_; }

    /// Takes power away when a fault wants that in this access. @returns true when it did
    bool goes_in(std::uint64_t access);

    void turn_on() { on_ = true; }

  private:
    struct Counted {
        PowerFault fault;
        bool struck;
    };
    void turn_off(Counted& by, std::uint64_t at_ns);

    const Clock* clock_;
    std::uint64_t start_ns_;
    std::vector<Counted> faults_;
    std::optional<std::uint64_t> back_ns_;
    bool on_ = true;
};

} // namespace emulator
