// The flash bus as a logic analyser would have recorded it.
#pragma once

#include "hardware/bus_probe.h"
#include "hardware/machine.h"
#include "vcd_file.h"

#include <array>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace emulator {

/// What is traced.
struct TraceOptions {
    std::string file;         ///< empty: nothing
    double from_seconds = 0;  ///< since the start
    double to_seconds = 1e12; ///< not included
};

/// Records the SPI buses as single wires in one file, and registers and parallel buses, which are
/// many lines wide, in a second one beside it.
///
/// Chips know no shorter time than their clock's step: software that does not wait makes all its
/// cycles at one moment. Here each cycle takes the time that its clocks need, and the next one
/// starts behind it, until the software's next pause lets the clock catch up.
class BusTrace final : public BusProbe {
  public:
    /// @param inputs  files that the trace must not replace
    /// @throws support::InputError when a file is refused or cannot be written
    BusTrace(const TraceOptions& options, std::span<const std::filesystem::path> inputs,
             Machine& machine, const Clock& clock);
    BusTrace(const BusTrace&) = delete;
    BusTrace& operator=(const BusTrace&) = delete;
    ~BusTrace() override;

    /// The second file's name: "x.vcd" has "x.registers.vcd" beside it.
    static std::filesystem::path registers_file(const std::filesystem::path& file);

    /// Ends the files, and says on standard error when nothing fell into the stretch.
    /// @throws support::InputError when not all of it was written
    void finish(const char* program);

    void on_spi_transfer(std::string_view place, const SpiTransfer& transfer, Operation operation,
                         const SpiChip* chip) override;
    void on_nor_cycle(std::string_view place, const NorCycle& cycle, const NorChip* chip) override;
    void on_register_access(std::string_view adapter, const RegisterAccess& access) override;
    void on_event(std::string_view what) override;

  private:
    using Signal = VcdFile::Signal;
    struct SpiWires {
        Signal select, clock, mosi, miso, busy, operation;
        std::uint64_t busy_until_ns = 0;
    };
    struct NorWires {
        Signal select, write, output, address, data, busy, operation;
        std::uint64_t busy_until_ns = 0;
    };
    struct RegisterWires {
        Signal write, read, bar, offset, value;
    };
    /// A pulse and what it stands for, in both files.
    struct MarkWires {
        Signal pulse, text;
    };

    void declare(const Adapter& adapter);
    static MarkWires declare_marks(VcdFile& file);
    bool begin();
    void end_busy(std::uint64_t now_ns);
    void shift(SpiWires& wires, std::uint8_t mosi, std::uint8_t miso);
    template <class Chip>
    void note_faults(std::string_view place, const Chip& chip);
    void write_marks();

    const Clock* clock_;
    Journal* journal_;
    std::uint64_t start_ns_;
    std::uint64_t from_ns_;
    std::uint64_t to_ns_;
    VcdFile spi_file_;
    VcdFile register_file_;
    std::map<std::string, SpiWires, std::less<>> spi_;
    std::map<std::string, NorWires, std::less<>> nor_;
    std::map<std::string, RegisterWires, std::less<>> registers_;
    std::array<MarkWires, 2> marks_;
    std::vector<std::string> waiting_marks_; ///< of the running cycle
    std::uint64_t time_ = 0;                 ///< in units of the files
    bool empty_ = true;
};

/// Connects the trace that the options ask for, if they do.
/// @param log  the cycle log's file, which the trace must not replace either; empty: none
/// @throws support::InputError when a file is refused or cannot be written
std::optional<BusTrace> start_trace(const TraceOptions& options,
                                    std::vector<std::filesystem::path> inputs,
                                    const std::string& log, Machine& machine, const Clock& clock);

} // namespace emulator
