#include "machine.h"

#include <string>

namespace emulator {
namespace {

constexpr std::uint64_t kMemoryWindow = 0xC0000000;
constexpr std::uint64_t kMemoryWindowEnd = 0xFC000000;

} // namespace

Machine::Machine(const Clock& clock) : clock_(&clock) {}

Adapter& Machine::add(const AdapterModel& model, PciAddress address, std::uint8_t revision) {
    adapters_.push_back(std::make_unique<Adapter>(
        model, address, revision, std::to_string(adapters_.size()), *clock_, journal_));
    return *adapters_.back();
}

SpiChip& Machine::add_spi_chip(Adapter& adapter, const SpiPart& part, BusyTimes times,
                               std::span<std::uint8_t> kept) {
    adapter.spi().attach(
        std::make_unique<SpiChip>(part, adapter.name() + ".cs1", *clock_, journal_, times, kept));
    return *adapter.spi().chip();
}

NorChip& Machine::add_nor_chip(Adapter& adapter, const NorPart& part, BusyTimes times,
                               std::span<std::uint8_t> kept) {
    adapter.nor()->attach(
        std::make_unique<NorChip>(part, adapter.name() + ".cs0", *clock_, journal_, times, kept));
    return *adapter.nor()->chip();
}

void Machine::assign_bars() {
    constexpr std::uint32_t kMemoryDecoding = 0x2;
    std::uint32_t next = kMemoryWindow;
    for (const auto& adapter : adapters_) {
        PciFunction& pci = adapter->pci();
        for (int bar = 0; bar < 6; ++bar) {
            const std::uint32_t size = pci.bar_size(bar);
            if (size != 0) {
                next = (next + size - 1) & ~(size - 1);
                pci.write(static_cast<std::uint32_t>(0x10 + 4 * bar), next, 4);
                next += size;
            }
        }
        pci.write(0x04, kMemoryDecoding, 2);
    }
}

std::uint32_t Machine::config_read(PciAddress address, std::uint32_t offset, int width) const {
    for (const auto& adapter : adapters_) {
        if (adapter->address() == address) {
            return adapter->config_read(offset, width);
        }
    }
    return all_ones(width);
}

bool Machine::in_memory_window(std::uint64_t address) {
    return address >= kMemoryWindow && address < kMemoryWindowEnd;
}

std::uint32_t Machine::memory_read(std::uint64_t address, int width) const {
    for (const auto& adapter : adapters_) {
        if (const auto at = adapter->pci().locate(address)) {
            return adapter->read(at, width);
        }
    }
    return all_ones(width);
}

void Machine::memory_write(std::uint64_t address, std::uint32_t value, int width) const {
    for (const auto& adapter : adapters_) {
        if (const auto at = adapter->pci().locate(address)) {
            adapter->write(at, value, width);
            return;
        }
    }
}

std::uint64_t Machine::accesses() const {
    std::uint64_t sum = 0;
    for (const auto& adapter : adapters_) {
        sum += adapter->accesses();
    }
    return sum;
}

} // namespace emulator
