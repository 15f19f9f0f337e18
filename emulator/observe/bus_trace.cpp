#include "bus_trace.h"

#include "support/input_error.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <utility>

namespace emulator {
namespace {

/// Half a period of the serial clock, in units of 10 ns: 25 MHz, which every part can take.
constexpr std::uint64_t kHalfClock = 2;
/// How long chip select stays high between two cycles, and how long other cycles take.
constexpr std::uint64_t kDeselected = 10;
constexpr std::uint64_t kBusCycle = 10;
constexpr std::uint64_t kPulse = 5;

std::uint64_t nanoseconds(double seconds) {
    return static_cast<std::uint64_t>(std::llround(seconds * 1e9));
}

std::vector<std::filesystem::path> with(std::span<const std::filesystem::path> files,
                                        const std::filesystem::path& one) {
    std::vector<std::filesystem::path> all(files.begin(), files.end());
    all.push_back(one);
    return all;
}

} // namespace

std::filesystem::path BusTrace::registers_file(const std::filesystem::path& file) {
    std::filesystem::path beside = file;
    beside.replace_extension();
    beside += ".registers.vcd";
    return beside;
}

BusTrace::BusTrace(const TraceOptions& options, std::span<const std::filesystem::path> inputs,
                   Machine& machine, const Clock& clock)
    : clock_(&clock), journal_(&machine.journal()), start_ns_(clock.now_ns()),
      from_ns_(nanoseconds(options.from_seconds)),
      to_ns_(options.to_seconds < 1e10 ? nanoseconds(options.to_seconds) : UINT64_MAX),
      spi_file_(options.file, inputs),
      register_file_(registers_file(options.file), with(inputs, options.file)) {
    if (from_ns_ >= to_ns_) {
        throw support::InputError("--trace-to is not behind --trace-from; allowed: a later time");
    }
    for (const auto& adapter : machine.adapters()) {
        declare(*adapter);
    }
    marks_ = {declare_marks(spi_file_), declare_marks(register_file_)};
    journal_->connect(*this);
}

BusTrace::~BusTrace() {
    journal_->disconnect(*this);
}

BusTrace::MarkWires BusTrace::declare_marks(VcdFile& file) {
    return {file.bits("MARK", 1, 0), file.text("mark")};
}

void BusTrace::declare(const Adapter& adapter) {
    // Importers of single wires do not look at scopes, so each name tells the adapter.
    const std::string& n = adapter.name();
    VcdFile& s = spi_file_;
    s.enter_scope("adapter" + n);
    spi_[n + ".cs1"] = {s.bits("CS" + n, 1, 1),   s.bits("SCK" + n, 1, 0),
                        s.bits("MOSI" + n, 1, 0), s.bits("MISO" + n, 1, 0),
                        s.bits("BUSY" + n, 1, 0), s.text("operation" + n)};
    s.leave_scope();
    VcdFile& r = register_file_;
    r.enter_scope("adapter" + n);
    registers_[n] = {r.bits("WR" + n, 1, 0), r.bits("RD" + n, 1, 0), r.bits("BAR" + n, 3, 0),
                     r.bits("OFFSET" + n, 20, 0), r.bits("VALUE" + n, 32, 0)};
    if (adapter.model().interface == Interface::kBar2) {
        nor_[n + ".cs0"] = {r.bits("CE" + n, 1, 1),  r.bits("WE" + n, 1, 1),
                            r.bits("OE" + n, 1, 1),  r.bits("A" + n, 24, 0),
                            r.bits("DQ" + n, 16, 0), r.bits("BUSY" + n, 1, 0),
                            r.text("operation" + n)};
    }
    r.leave_scope();
}

/// Starts what is recorded of a cycle. @returns false when it lies outside the stretch
bool BusTrace::begin() {
    const std::uint64_t now = clock_->now_ns() - start_ns_;
    if (now < from_ns_ || now >= to_ns_) {
        waiting_marks_.clear();
        return false;
    }
    empty_ = false;
    end_busy(clock_->now_ns());
    time_ = std::max(time_, now / VcdFile::kUnitNs);
    spi_file_.at(time_);
    register_file_.at(time_);
    return true;
}

/// Chips become ready while nobody looks. What is asked of a chip later comes behind that.
void BusTrace::end_busy(std::uint64_t now_ns) {
    const auto end = [&](auto& wires, VcdFile& file) {
        if (wires.busy_until_ns <= now_ns) {
            const std::uint64_t until = std::max(wires.busy_until_ns, start_ns_) - start_ns_;
            file.at(std::max(time_, until / VcdFile::kUnitNs));
            file.set(wires.busy, 0);
        }
    };
    for (auto& [place, wires] : spi_) {
        end(wires, spi_file_);
    }
    for (auto& [place, wires] : nor_) {
        end(wires, register_file_);
    }
}

/// One byte, highest bit first: both sides put a bit out while the clock is low, and take the other
/// side's at its rise.
void BusTrace::shift(SpiWires& wires, std::uint8_t mosi, std::uint8_t miso) {
    for (int bit = 7; bit >= 0; --bit) {
        spi_file_.at(time_);
        spi_file_.set(wires.clock, 0);
        spi_file_.set(wires.mosi, mosi >> bit & 1U);
        spi_file_.set(wires.miso, miso >> bit & 1U);
        time_ += kHalfClock;
        spi_file_.at(time_);
        spi_file_.set(wires.clock, 1);
        time_ += kHalfClock;
    }
}

template <class Chip>
void BusTrace::note_faults(std::string_view place, const Chip& chip) {
    for (const FaultKind kind : chip.faults().at_work()) {
        on_event(std::string(place) + ": fault: " + std::string(fault_kind_name(kind)));
    }
}

void BusTrace::on_spi_transfer(std::string_view place, const SpiTransfer& transfer,
                               Operation operation, const SpiChip* chip) {
    if (chip != nullptr) {
        note_faults(place, *chip);
    }
    if (!begin()) {
        return;
    }
    SpiWires& wires = spi_.find(place)->second;
    spi_file_.set(wires.select, 0);
    spi_file_.set(wires.operation, operation_name(operation));
    constexpr std::uint8_t kIdle = 0; // the chip's output, while it listens
    shift(wires, transfer.opcode, kIdle);
    for (int byte = transfer.has_address ? 2 : -1; byte >= 0; --byte) {
        shift(wires, static_cast<std::uint8_t>(transfer.address >> (8 * byte)), kIdle);
    }
    for (std::size_t i = 0; i < transfer.mosi.size(); ++i) {
        shift(wires, transfer.mosi[i], transfer.miso[i]);
    }
    spi_file_.at(time_);
    spi_file_.set(wires.clock, 0);
    spi_file_.set(wires.mosi, 0);
    spi_file_.set(wires.miso, kIdle);
    time_ += kHalfClock;
    spi_file_.at(time_);
    spi_file_.set(wires.select, 1);
    spi_file_.set(wires.operation, "-");
    if (chip != nullptr) {
        wires.busy_until_ns = chip->busy_until_ns();
        spi_file_.set(wires.busy, wires.busy_until_ns > clock_->now_ns() ? 1 : 0);
    }
    time_ += kDeselected;
    write_marks();
}

void BusTrace::on_nor_cycle(std::string_view place, const NorCycle& cycle, const NorChip* chip) {
    if (chip != nullptr) {
        note_faults(place, *chip);
    }
    if (!begin()) {
        return;
    }
    NorWires& wires = nor_.find(place)->second;
    Signal& strobe = cycle.write ? wires.write : wires.output;
    register_file_.set(wires.select, 0);
    register_file_.set(wires.address, cycle.address);
    register_file_.set(wires.data, cycle.data);
    register_file_.set(wires.operation, cycle.operation == Operation::kUnknown
                                            ? "-"
                                            : operation_name(cycle.operation));
    register_file_.set(strobe, 0);
    time_ += kPulse;
    register_file_.at(time_);
    register_file_.set(strobe, 1);
    register_file_.set(wires.select, 1);
    if (chip != nullptr) {
        wires.busy_until_ns = chip->busy_until_ns();
        register_file_.set(wires.busy, wires.busy_until_ns > clock_->now_ns() ? 1 : 0);
    }
    time_ += kBusCycle - kPulse;
    write_marks();
}

void BusTrace::on_register_access(std::string_view adapter, const RegisterAccess& access) {
    if (!begin()) {
        return;
    }
    RegisterWires& wires = registers_.find(adapter)->second;
    Signal& strobe = access.write ? wires.write : wires.read;
    register_file_.set(wires.bar, static_cast<std::uint64_t>(access.bar));
    register_file_.set(wires.offset, access.offset);
    register_file_.set(wires.value, access.value);
    register_file_.set(strobe, 1);
    time_ += kPulse;
    register_file_.at(time_);
    register_file_.set(strobe, 0);
    time_ += kBusCycle - kPulse;
    write_marks();
}

void BusTrace::on_event(std::string_view what) {
    waiting_marks_.emplace_back(what);
}

/// Each mark is a pulse behind the cycle that it is about.
void BusTrace::write_marks() {
    for (const std::string& mark : std::exchange(waiting_marks_, {})) {
        for (const bool on : {true, false}) {
            spi_file_.at(time_);
            spi_file_.set(marks_[0].pulse, on ? 1 : 0);
            spi_file_.set(marks_[0].text, on ? mark : "-");
            register_file_.at(time_);
            register_file_.set(marks_[1].pulse, on ? 1 : 0);
            register_file_.set(marks_[1].text, on ? mark : "-");
            time_ += kPulse;
        }
    }
}

void BusTrace::finish(const char* program) {
    journal_->disconnect(*this);
    const std::uint64_t now = clock_->now_ns();
    if (now - start_ns_ < to_ns_) {
        end_busy(now);
        time_ = std::max(time_, (now - start_ns_) / VcdFile::kUnitNs);
    }
    if (empty_) {
        std::cerr << program << ": nothing happened on the bus in the stretch to trace; the run "
                  << "ended after " << static_cast<double>(now - start_ns_) / 1e9 << " s\n";
    }
    spi_file_.finish(time_);
    register_file_.finish(time_);
}

std::optional<BusTrace> start_trace(const TraceOptions& options,
                                    std::vector<std::filesystem::path> inputs,
                                    const std::string& log, Machine& machine, const Clock& clock) {
    if (options.file.empty()) {
        return std::nullopt;
    }
    if (!log.empty()) {
        inputs.emplace_back(log);
    }
    return std::optional<BusTrace>(std::in_place, options, inputs, machine, clock);
}

} // namespace emulator
