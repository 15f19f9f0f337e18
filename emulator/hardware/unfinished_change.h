// What a chip is in the middle of changing, and what a loss of power leaves of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace emulator {

/// The last program, erase or status write of a chip. The models store its result at once; until it
/// ends, the bytes before it are needed to tell what an interrupted one leaves. While power stays,
/// nothing is kept.
class UnfinishedChange {
  public:
    /// Power can go from now on.
    void expect_interruption() { expected_ = true; }

    /// A change of `memory` starts that ends at a time; the one before it is over.
    void start(std::span<std::uint8_t> memory, std::uint64_t end_ns);

    /// It changes the byte at an offset, which holds `before`.
    void changes_byte(std::size_t at, std::uint8_t before) {
        if (expected_) {
            bytes_.push_back({at, before});
        }
    }

    /// It erases a range, but for bits of each byte that do not change.
    void erases(std::size_t first, std::size_t size, std::uint8_t stuck);

    /// What has ended by then can no longer be interrupted.
    void forget_ended(std::uint64_t now_ns);

    /// Power goes before the end: a bit that was being programmed may have changed or not, an
    /// erased range holds anything. The same seed leaves the same bytes.
    void interrupt(std::uint64_t seed);

  private:
    struct Byte {
        std::size_t at;
        std::uint8_t before;
    };

    bool expected_ = false;
    std::span<std::uint8_t> memory_;
    std::uint64_t end_ns_ = 0;
    std::vector<Byte> bytes_;
    std::span<std::uint8_t> erased_;
    std::uint8_t stuck_ = 0;
};

} // namespace emulator
