// File names as the shell takes them.
#pragma once

#include "qfu/platform/files.h"

#include <cstddef>
#include <string_view>

namespace flash {

/// Adds to a name. @returns false, with the name as it was, when it would become too long
constexpr bool append(platform::FileName& name, std::string_view end) {
    std::size_t length = 0;
    while (name.text[length] != 0) {
        ++length;
    }
    if (length + end.size() >= platform::FileName::CAPACITY) {
        return false;
    }
    for (const char c : end) {
        name.text[length++] = static_cast<unsigned char>(c);
    }
    name.text[length] = 0;
    return true;
}

} // namespace flash
