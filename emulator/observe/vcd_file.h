// A file of value changes, which wave viewers and logic analysers' programs read.
#pragma once

#include "support/output_file.h"

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace emulator {

/// Writes a VCD file at a time scale of 10 ns. Signals are declared first; the first change ends
/// that.
class VcdFile {
  public:
    static constexpr std::uint64_t kUnitNs = 10;

    /// A signal and the value that the file shows.
    class Signal {
        friend class VcdFile;
        std::string id_;
        int bits_ = 0;
        std::uint64_t value_ = 0;
        std::string text_;
    };

    /// @param inputs  files that it must not replace
    /// @throws support::InputError when the file is refused or cannot be written
    VcdFile(const std::filesystem::path& file, std::span<const std::filesystem::path> inputs);

    void enter_scope(std::string_view name);
    void leave_scope();

    /// Declares a signal that starts with a value.
    Signal bits(std::string_view name, int count, std::uint64_t value);
    /// Declares a text, for people. It starts as "-", and blanks in it become "_".
    Signal text(std::string_view name);

    /// The time of the next changes, in units. Time does not go back: an earlier one is no change.
    void at(std::uint64_t time);
    void set(Signal& signal, std::uint64_t value);
    void set(Signal& signal, std::string_view text);

    /// Ends the file at a time. @throws support::InputError when not all of it was written
    void finish(std::uint64_t time);

  private:
    Signal declare(std::string_view type, std::string_view name, int count);
    void write_time();
    void write_value(const Signal& signal);

    support::OutputFile file_;
    std::string declarations_;
    std::string first_values_;
    int signals_ = 0;
    std::uint64_t time_ = 0;
    bool time_written_ = false;
};

} // namespace emulator
