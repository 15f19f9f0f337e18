#include "events.h"

#include <algorithm>

namespace emulator {

Events::Event* Events::create() {
    events_.push_back(std::make_unique<Event>());
    return events_.back().get();
}

bool Events::set_timer(Event* event, std::uint64_t now_ns, std::uint64_t delay_ns) {
    if (!is_open(event)) {
        journal_->misuse("events: a timer set that is not open");
        return false;
    }
    event->due_ns = now_ns + delay_ns;
    return true;
}

bool Events::close(Event* event) {
    if (std::erase_if(events_, [&](const auto& e) { return e.get() == event; }) == 0) {
        journal_->misuse("events: an event closed that is not open");
        return false;
    }
    return true;
}

bool Events::is_open(const Event* event) const {
    return std::ranges::any_of(events_, [&](const auto& e) { return e.get() == event; });
}

} // namespace emulator
