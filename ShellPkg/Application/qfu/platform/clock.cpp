#include "clock.h"

#include "system.h"

namespace platform {

void stall(std::size_t microseconds) {
    system().boot->Stall(microseconds);
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
