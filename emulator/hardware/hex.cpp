#include "hex.h"

#include <array>
#include <cstdio>

namespace emulator {

std::string hex(std::uint64_t value, int digits) {
    std::array<char, 17> text{};
    std::snprintf(text.data(), text.size(), "%0*llX", digits,
                  static_cast<unsigned long long>(value));
    return text.data();
}

} // namespace emulator
