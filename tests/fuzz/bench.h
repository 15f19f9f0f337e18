// What the fuzz targets share: the input, and a bench for runs of the whole program. A failed
// expectation ends the process, which is a finding.
#pragma once

#include "hardware/hex.h"
#include "tests/lab.h"

#include <cstring>
#include <gtest/gtest.h>

namespace fuzz {

/// The input, taken from its front. Behind its end are zeros.
class Input {
  public:
    Input(const void* data, std::size_t size) : rest_(static_cast<const char*>(data), size) {}

    bool empty() const { return rest_.empty(); }

    /// The characters up to the next line feed or another end, which goes with them.
    std::string_view line(char end = '\n') {
        const std::string_view line = rest_.substr(0, rest_.find(end));
        rest_.remove_prefix(std::min(line.size() + 1, rest_.size()));
        return line;
    }

    template <class Number>
    Number take() {
        Number number = 0;
        const std::size_t bytes = std::min(sizeof number, rest_.size());
        std::memcpy(&number, rest_.data(), bytes);
        rest_.remove_prefix(bytes);
        return number;
    }

  private:
    std::string_view rest_;
};

/// A lab with an adapter, a chip of 64 KiB that holds old bytes, and a short image. Nothing may be
/// left beside its folder.
class Bench : public lab::Lab {
  public:
    static constexpr std::string_view kImage = "forty bytes of an image, new in each run";

    /// @param kind  '1' indexed, '2' window in BAR 2 with a NOR chip beside, else window in BAR 0
    explicit Bench(char kind);
    ~Bench();

    /// The option that keeps a run from looking for other adapters.
    std::string only() { return " -cdid " + emulator::hex(device_, 4); }

    /// The firmware's table for a protocol, for targets that answer in its place.
    template <class Table>
    Table& table(EFI_GUID protocol) {
        void* found = nullptr;
        firmware().table()->BootServices->LocateProtocol(&protocol, nullptr, &found);
        return *static_cast<Table*>(found);
    }

  private:
    std::uint16_t device_;
};

} // namespace fuzz
