// SHA-256 (FIPS 180-4), for the tools and for firmware: it needs no library and no memory.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

/// The sum of bytes that come piece by piece.
class QFU_SHA256 {
  public:
    using Sum = std::array<std::uint8_t, 32>;

    constexpr void add(std::span<const std::uint8_t> bytes) {
        for (const std::uint8_t byte : bytes) {
            block_[length_++ % BLOCK] = byte;
            if (length_ % BLOCK == 0) {
                mix();
            }
        }
    }

    /// Ends the sum; nothing can be added to it afterwards.
    constexpr Sum finish() {
        constexpr std::uint8_t ONE[] = {0x80};
        constexpr std::uint8_t ZERO[] = {0};
        const std::uint64_t bits = length_ * 8;
        add(ONE);
        while (length_ % BLOCK != BLOCK - sizeof bits) {
            add(ZERO);
        }
        for (int shift = 56; shift >= 0; shift -= 8) {
            const std::uint8_t byte[] = {static_cast<std::uint8_t>(bits >> shift)};
            add(byte);
        }
        Sum sum{};
        for (std::size_t i = 0; i < sum.size(); ++i) {
            sum[i] = static_cast<std::uint8_t>(state_[i / 4] >> (24 - i % 4 * 8));
        }
        return sum;
    }

  private:
    static constexpr std::size_t BLOCK = 64;
    static constexpr std::array<std::uint32_t, 64> ROUND = {
        0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4,
        0xab1c5ed5, 0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe,
        0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f,
        0x4a7484aa, 0x5cb0a9dc, 0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7,
        0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc,
        0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1, 0xa81a664b,
        0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116,
        0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
        0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7,
        0xc67178f2};

    constexpr void mix() {
        std::array<std::uint32_t, 64> w{};
        for (std::size_t i = 0; i < BLOCK; ++i) {
            w[i / 4] |= std::uint32_t{block_[i]} << (24 - i % 4 * 8);
        }
        for (std::size_t i = 16; i < w.size(); ++i) {
            const std::uint32_t s0 =
                std::rotr(w[i - 15], 7) ^ std::rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
            const std::uint32_t s1 =
                std::rotr(w[i - 2], 17) ^ std::rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
            w[i] = w[i - 16] + s0 + w[i - 7] + s1;
        }
        auto [a, b, c, d, e, f, g, h] = state_;
        for (std::size_t i = 0; i < w.size(); ++i) {
            const std::uint32_t big1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
            const std::uint32_t t1 = h + big1 + ((e & f) ^ (~e & g)) + ROUND[i] + w[i];
            const std::uint32_t big0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
            const std::uint32_t t2 = big0 + ((a & b) ^ (a & c) ^ (b & c));
            h = g;
            g = f;
            f = e;
            e = d + t1;
            d = c;
            c = b;
            b = a;
            a = t1 + t2;
        }
        const std::array<std::uint32_t, 8> mixed = {a, b, c, d, e, f, g, h};
        for (std::size_t i = 0; i < state_.size(); ++i) {
            state_[i] += mixed[i];
        }
    }

    std::array<std::uint32_t, 8> state_ = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                           0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::array<std::uint8_t, BLOCK> block_{};
    std::uint64_t length_ = 0;
};
