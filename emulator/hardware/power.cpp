#include "power.h"

#include <algorithm>

namespace emulator {
namespace {

constexpr std::uint64_t kNsPerUs = 1000;

} // namespace

Power::Change Power::next_change() {
    const std::uint64_t now = clock_->now_ns();
    if (!on_) {
        if (back_ns_ && now >= *back_ns_) {
            const std::uint64_t at = *back_ns_;
            turn_on();
            return {Event::kBack, at};
        }
        return {Event::kNone, now};
    }
    for (Counted& c : faults_) {
        const std::uint64_t at = start_ns_ + kNsPerUs * c.fault.at_us;
        if (c.fault.nth == 0 && !c.struck && now >= at) {
            turn_off(c, at);
            return {Event::kLost, at};
        }
    }
    return {Event::kNone, now};
}

bool Power::goes_in(std::uint64_t access) {
    const auto found = std::ranges::find_if(
        faults_, [access](const Counted& c) { return !c.struck && c.fault.nth == access; });
    if (found == faults_.end()) {
        return false;
    }
    turn_off(*found, clock_->now_ns());
    return true;
}

void Power::turn_off(Counted& by, std::uint64_t at_ns) {
    by.struck = true;
    on_ = false;
    back_ns_.reset();
    if (by.fault.off_us != 0) {
        back_ns_ = at_ns + kNsPerUs * by.fault.off_us;
    }
}

} // namespace emulator
