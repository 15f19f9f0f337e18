// What machine files can name.
#pragma once

#include <array>
#include <string_view>

namespace emulator {

/// One table of `qfu-emu list`.
struct ListTopic {
    std::string_view name; ///< on the command line
    void (*print)();       ///< on standard output
};

extern const std::array<ListTopic, 3> kListTopics;

} // namespace emulator
