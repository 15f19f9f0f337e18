#include "bus_summary.h"

#include "hardware/spi_chip.h"

#include <fmt/format.h>

namespace emulator {

BusSummary::BusSummary(Machine& machine, const Clock& clock) : machine_(&machine), clock_(&clock) {
    machine.journal().connect(*this);
}

BusSummary::~BusSummary() {
    machine_->journal().disconnect(*this);
}

void BusSummary::on_spi_transfer(std::string_view place, const SpiTransfer& transfer,
                                 Operation operation, const SpiChip* /*chip*/) {
    count(place, operation, transfer.mosi.size());
}

void BusSummary::on_nor_cycle(std::string_view place, const NorCycle& cycle,
                              const NorChip* /*chip*/) {
    // Most cycles are steps of a sequence; the last one tells what it does.
    if (cycle.operation != Operation::kUnknown) {
        const bool data = !cycle.write || cycle.operation == Operation::kProgram;
        count(place, cycle.operation, data ? sizeof cycle.data : 0);
    }
}

void BusSummary::count(std::string_view place, Operation operation, std::uint64_t bytes) {
    const std::uint64_t now = clock_->now_ns();
    if (last_ != nullptr) {
        last_->nanoseconds += now - last_ns_;
    }
    last_ = &sums_[{Place(place), operation}];
    last_ns_ = now;
    ++last_->count;
    last_->bytes += bytes;
}

std::uint64_t BusSummary::bytes_moved(const std::string& adapter) const {
    std::uint64_t bytes = 0;
    for (const auto& [key, sum] : sums_) {
        const auto& [place, operation] = key;
        const bool contents = operation == Operation::kRead || operation == Operation::kProgram ||
                              operation == Operation::kProgramWord;
        bytes += contents && place.starts_with(adapter + ".") ? sum.bytes : 0;
    }
    return bytes;
}

std::string BusSummary::text() const {
    std::string text = "place     operation              count       bytes        seconds\n";
    for (const auto& [key, sum] : sums_) {
        const std::uint64_t running = &sum == last_ ? clock_->now_ns() - last_ns_ : 0;
        text += fmt::format("{:8}  {:16}  {:10}  {:10}  {:13.6f}\n", key.first,
                            operation_name(key.second), sum.count, sum.bytes,
                            static_cast<double>(sum.nanoseconds + running) / 1e9);
    }
    for (const auto& adapter : machine_->adapters()) {
        const std::uint64_t accesses = adapter->accesses();
        const std::uint64_t bytes = bytes_moved(adapter->name());
        if (accesses != 0) {
            text += fmt::format("adapter {}: {} register accesses", adapter->name(), accesses);
            text += bytes == 0
                        ? "\n"
                        : fmt::format(", {:.2f} a byte programmed or read\n",
                                      static_cast<double>(accesses) / static_cast<double>(bytes));
        }
    }
    return text;
}

} // namespace emulator
