// How the emulator prints numbers.
#pragma once

#include <cstdint>
#include <string>

namespace emulator {

/// Text of a number in capital hexadecimal digits, `digits` of them at least.
std::string hex(std::uint64_t value, int digits);

} // namespace emulator
