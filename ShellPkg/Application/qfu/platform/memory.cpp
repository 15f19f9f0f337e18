// The memory and string routines that the compiler calls by itself; firmware images have no library
// to take them from.
#include <cstddef>

extern "C" {

void* memset(void* to, int value, std::size_t count) {
    auto* p = static_cast<unsigned char*>(to);
    for (std::size_t i = 0; i < count; ++i) {
        p[i] = static_cast<unsigned char>(value);
    }
    return to;
}

void* memcpy(void* to, const void* from, std::size_t count) {
    auto* p = static_cast<unsigned char*>(to);
    const auto* q = static_cast<const unsigned char*>(from);
    for (std::size_t i = 0; i < count; ++i) {
        p[i] = q[i];
    }
    return to;
}

int memcmp(const void* a, const void* b, std::size_t count) {
    const auto* p = static_cast<const unsigned char*>(a);
    const auto* q = static_cast<const unsigned char*>(b);
    for (std::size_t i = 0; i < count; ++i) {
        if (p[i] != q[i]) {
            return p[i] < q[i] ? -1 : 1;
        }
    }
    return 0;
}

std::size_t strlen(const char* text) {
    std::size_t length = 0;
    while (text[length] != 0) {
        ++length;
    }
    return length;
}

} // extern "C"
