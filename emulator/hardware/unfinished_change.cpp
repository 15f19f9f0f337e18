#include "unfinished_change.h"

#include <random>

namespace emulator {

void UnfinishedChange::start(std::span<std::uint8_t> memory, std::uint64_t end_ns) {
    memory_ = memory;
    end_ns_ = end_ns;
    bytes_.clear();
    erased_ = {};
}

void UnfinishedChange::erases(std::size_t first, std::size_t size, std::uint8_t stuck) {
    if (expected_) {
        erased_ = memory_.subspan(first, size);
        stuck_ = stuck;
    }
}

void UnfinishedChange::forget_ended(std::uint64_t now_ns) {
    if (now_ns >= end_ns_) {
        start({}, 0);
    }
}

void UnfinishedChange::interrupt(std::uint64_t seed) {
    std::mt19937_64 random(seed);
    for (const Byte& byte : bytes_) {
        std::uint8_t& now = memory_[byte.at];
        now = static_cast<std::uint8_t>(now ^ ((now ^ byte.before) & random()));
    }
    for (std::uint8_t& byte : erased_) {
        byte = static_cast<std::uint8_t>((byte & stuck_) | (random() & ~stuck_));
    }
    start({}, 0);
}

} // namespace emulator
