// What machine files can name.
#pragma once

#include <array>
#include <string_view>

namespace emulator {

/// A table of things that machine files can name.
struct KnownThings {
    std::string_view name; ///< on the command line
    void (*print)();       ///< on standard output
};

extern const std::array<KnownThings, 3> kKnownThings;

} // namespace emulator
