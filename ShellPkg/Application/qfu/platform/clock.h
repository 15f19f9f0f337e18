// Pauses.
#pragma once

#include <cstddef>

namespace platform {

/// Keeps the processor busy for at least `microseconds`.
void stall(std::size_t microseconds);

} // namespace platform
