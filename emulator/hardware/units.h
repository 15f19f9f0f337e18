// Sizes in bytes.
#pragma once

#include <cstdint>

namespace emulator {

inline constexpr std::uint32_t kKiB = 1024;
inline constexpr std::uint32_t kMiB = 1024 * kKiB;

} // namespace emulator
