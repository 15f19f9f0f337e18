// The bit streams that a PHY test block sends, and what they are.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace emulator {

/// What a selector in pattern register 5 makes the block send; empty when it selects nothing.
std::string describe_selection(std::uint32_t selector);

/// What the block sends from pattern registers 2 to 5. Each holds two data characters, the low byte
/// first; the 8b/10b encoder sends the eight again and again.
std::string describe_characters(std::span<const std::uint32_t, 4> registers);

} // namespace emulator
