// What a range of the flash is to hold: the bytes of a file, or FF.
#pragma once

#include "outcome.h"

#include <cstdint>
#include <span>

namespace flash {

/// Bytes that one step reads, saves or programs.
inline constexpr std::uint32_t PIECE = 0x8000;

class Image {
  public:
    /// Opens a file of 1 byte to 4 GiB - 1 and reads it once.
    /// @param buffer  memory for pieces
    /// @returns refused when it cannot be used
    Outcome open(const platform::FileName& name, std::span<std::uint8_t> buffer);

    /// Takes `size` bytes of FF instead of a file.
    void be_blank(std::uint32_t size, std::span<std::uint8_t> buffer);

    void close() { file_.close(); }

    /// As messages call it.
    const platform::FileName& name() const { return name_; }
    std::uint32_t size() const { return size_; }

    /// Of what was read when it was opened.
    const QFU_SHA256::Sum& sum() const { return sum_; }

    /// Reads the bytes from `offset` on. @returns false when the file does not have them any more
    bool read(std::uint32_t offset, std::span<std::uint8_t> out) const;

  private:
    bool take_sum(std::span<std::uint8_t> buffer);

    platform::FileHandle file_;
    platform::FileName name_{};
    std::uint32_t size_ = 0;
    QFU_SHA256::Sum sum_{};
};

} // namespace flash
