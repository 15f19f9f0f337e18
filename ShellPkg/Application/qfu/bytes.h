// Comparison of bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/// True when `b` begins with the bytes of `a`.
constexpr bool qfu_same_bytes(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i] != b[i]) {
            return false;
        }
    }
    return true;
}
