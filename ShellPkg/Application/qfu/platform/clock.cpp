#include "clock.h"

#include "system.h"

namespace platform {

void stall(std::size_t microseconds) {
    system().boot->Stall(microseconds);
}

} // namespace platform
