// What the usual runs of the program run on: hardware that is never busy.
#pragma once

#include "in_process.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

using Bytes = std::vector<std::uint8_t>;

/// One kind of adapter with one chip.
struct Subject {
    std::uint16_t device;
    std::string_view spi_part;
    std::uint32_t nor_id; ///< with a SPI part 0
};
inline constexpr Subject kKind1{0xC709, "W25Q16", 0};
inline constexpr Subject kKind4{0xC705, "W25Q16", 0};
inline constexpr Subject kNor{0xC703, "", 0x22CB00C2};

/// A folder with a chip list, and an adapter whose chip is never busy.
class Bench {
  public:
    explicit Bench(const Subject& subject);
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;
    ~Bench();

    /// Puts a file into the folder.
    void write(const std::string& name, const Bytes& bytes) const;

    /// Runs the program with these options.
    /// @returns what the shell gets to see
    EFI_STATUS run(const std::vector<std::string>& options);

    emulator::Machine& machine() { return machine_; }
    std::span<std::uint8_t> contents() const { return contents_; }

  private:
    std::filesystem::path folder_;
    emulator::VirtualClock clock_;
    emulator::Machine machine_{clock_};
    std::optional<emulator::Firmware> firmware_;
    std::span<std::uint8_t> contents_; ///< of the chip
};

/// So many bytes, the same ones each time.
Bytes random_bytes(std::size_t count);

} // namespace bench
