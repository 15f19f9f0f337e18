// Firmware calls that fail on demand.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace emulator {

/// Counts the calls of one kind and says which of them fail.
class CallFault {
  public:
    /// Lets `times` calls fail (0: all that follow), from the `nth` on (the first is 1).
    void fail(std::uint64_t nth, std::uint64_t times = 1) {
        nth_ = nth;
        times_ = times;
    }

    /// Counts the next call. @returns true when it fails
    bool next_call_fails() {
        ++calls_;
        return nth_ != 0 && calls_ >= nth_ && (times_ == 0 || calls_ < nth_ + times_);
    }

    /// True when calls should have failed and none has.
    bool never_struck() const { return nth_ != 0 && calls_ < nth_; }

    std::uint64_t calls() const { return calls_; }

  private:
    std::uint64_t calls_ = 0;
    std::uint64_t nth_ = 0;
    std::uint64_t times_ = 1;
};

/// Everything about the firmware that can go wrong.
struct FirmwareFaults {
    CallFault pool;            ///< AllocatePool finds no memory
    CallFault file;            ///< a shell file function reports a device error
    CallFault short_read;      ///< ReadFile stops half-way
    CallFault memory_read;     ///< Mem.Read reports a device error
    CallFault memory_write;    ///< Mem.Write reports a device error
    CallFault config_read;     ///< Pci.Read reports a device error
    CallFault create_event;    ///< CreateEvent finds no resources
    CallFault set_timer;       ///< SetTimer reports a device error
    CallFault wait_for_event;  ///< WaitForEvent reports a device error
    CallFault read_key;        ///< ReadKeyStroke reports a device error
    CallFault output;          ///< OutputString reports a device error and prints nothing
    CallFault locate_protocol; ///< LocateProtocol finds nothing
    CallFault open_protocol;   ///< OpenProtocol finds nothing
    CallFault break_query;     ///< the user breaks the command before this query
    CallFault clock;           ///< GetTime reports a device error
};

/// A kind of call that can fail, by its name in machine files.
struct NamedCall {
    std::string_view name;
    CallFault FirmwareFaults::*fault;
};

inline constexpr std::array<NamedCall, 15> kNamedCalls = {
    {
     {"pool", &FirmwareFaults::pool},
     {"file", &FirmwareFaults::file},
     {"short read", &FirmwareFaults::short_read},
     {"memory read", &FirmwareFaults::memory_read},
     {"memory write", &FirmwareFaults::memory_write},
     {"configuration read", &FirmwareFaults::config_read},
     {"create event", &FirmwareFaults::create_event},
     {"set timer", &FirmwareFaults::set_timer},
     {"wait for event", &FirmwareFaults::wait_for_event},
     {"read key", &FirmwareFaults::read_key},
     {"output", &FirmwareFaults::output},
     {"locate protocol", &FirmwareFaults::locate_protocol},
     {"open protocol", &FirmwareFaults::open_protocol},
     {"break", &FirmwareFaults::break_query},
     {"clock", &FirmwareFaults::clock},
     }
};

/// The calls of that name, which must be one of the named.
constexpr CallFault FirmwareFaults::*call_named(std::string_view name) {
    return std::ranges::find(kNamedCalls, name, &NamedCall::name)->fault;
}

} // namespace emulator
