// Timer events in virtual time.
#pragma once

#include "hardware/clock.h"
#include "hardware/journal.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace emulator {

/// The events that a program has made, and the ones of the firmware.
class Events {
  public:
    explicit Events(Journal& journal) : journal_(&journal) {}

    struct Event {
        std::uint64_t due_ns = 0; ///< 0: not armed
    };

    Event* create();
    bool set_timer(Event* event, std::uint64_t now_ns, std::uint64_t delay_ns);
    bool close(Event* event);
    bool is_open(const Event* event) const;

    std::size_t out() const { return events_.size(); }

  private:
    Journal* journal_;
    std::vector<std::unique_ptr<Event>> events_;
};

} // namespace emulator
