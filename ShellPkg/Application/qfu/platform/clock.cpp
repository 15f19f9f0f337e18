#include "clock.h"

#include "system.h"

namespace platform {

void stall(std::size_t microseconds) {
    System& s = system();
    s.pause_left_us -= s.pause_left_us < microseconds ? s.pause_left_us : microseconds;
    s.boot->Stall(microseconds);
}

void limit_pauses(std::uint64_t microseconds) {
    system().pauses_limited = true;
    system().pause_left_us = microseconds;
}

bool pauses_spent() {
    return system().pauses_limited && system().pause_left_us == 0;
}

bool wall_time(WallTime& out) {
    EFI_TIME time{};
    if (system().runtime->GetTime(&time, nullptr) != EFI_SUCCESS) {
        return false;
    }
    out = {time.Year, time.Month, time.Day, time.Hour, time.Minute, time.Second};
    return true;
}

} // namespace platform
