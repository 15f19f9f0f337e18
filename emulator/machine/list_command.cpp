#include "list_command.h"

#include "hardware/adapter.h"
#include "hardware/fault.h"
#include "hardware/hex.h"
#include "hardware/nor_part.h"
#include "hardware/phy_block.h"
#include "hardware/spi_part.h"
#include "uefi/call_faults.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace emulator {
namespace {

constexpr std::uint32_t kKiB = 1024;

std::string kib(std::uint32_t bytes) {
    return std::to_string(bytes / kKiB) + " KiB";
}

template <class Words>
std::string joined(const Words& words) {
    std::string text;
    for (const auto& word : words) {
        text.append(text.empty() ? "" : ", ");
        text.append(word);
    }
    return text;
}

/// One line of columns, the last as long as it needs to be.
void print_row(const std::vector<std::string>& cells, const std::vector<int>& widths) {
    std::cout << std::left;
    for (std::size_t i = 0; i + 1 < cells.size(); ++i) {
        std::cout << std::setw(widths[i]) << cells[i] << "  ";
    }
    std::cout << cells.back() << '\n';
}

void print_parts() {
    const std::vector<int> widths = {11, 9, 9};
    std::cout << "[adapter.spi]\n";
    print_row({"part", "ID", "size", "erases"}, widths);
    for (const SpiPart& part : spi_parts()) {
        std::string id;
        for (std::size_t i = 0; i < part.id_length; ++i) {
            id.append(i == 0 ? "" : " ");
            id.append(hex(part.id[i], 2));
        }
        std::vector<std::string> units;
        for (const EraseCommand& erase : part.erases->units) {
            // A second opcode for the same unit says nothing new.
            if (erase.unit != 0 && (units.empty() || units.back() != kib(erase.unit))) {
                units.push_back(kib(erase.unit));
            }
        }
        print_row({std::string(part.name), id, kib(part.size), joined(units)}, widths);
    }
    std::cout << "\n[adapter.nor]\n";
    print_row({"id", "", "size", "erases"}, widths);
    for (const NorPart& part : nor_parts()) {
        print_row({"0x" + hex(part.id(), 8), "", kib(part.size), "8 KiB, 64 KiB"}, widths);
    }
}

void print_adapters() {
    const std::vector<int> widths = {6, 6, 4, 5};
    print_row({"vendor", "device", "kind", "ports", "can have"}, widths);
    for (const AdapterModel& model : adapter_models()) {
        const bool indexed = model.interface == Interface::kIndexed;
        const bool nor = model.interface == Interface::kBar2;
        print_row({"0x" + hex(model.vendor, 4), "0x" + hex(model.device, 4),
                   indexed ? "1"
                   : nor   ? "2"
                           : "4",
                   std::to_string(model.ports),
                   indexed ? "spi, phy"
                   : nor   ? "spi, nor"
                           : "spi"},
                  widths);
    }
}

void print_chip_faults(std::string_view table, ChipKind chip) {
    std::cout << "[[adapter." << table << ".fault]]\n";
    const std::vector<int> widths = {15, 4};
    print_row({"kind", "mask", "on"}, widths);
    for (const std::string_view name : fault_kind_names()) {
        const FaultKind kind = *fault_kind_named(name);
        print_row(
            {std::string(name), has_mask(kind) ? "yes" : "no", joined(operations_of(chip, kind))},
            widths);
    }
    std::cout << '\n';
}

void print_faults() {
    std::cout << "[[adapter.fault]]\nkind: " << kPowerFaultKind << "; nth or at_us, off_us\n\n";
    print_chip_faults("spi", ChipKind::kSpi);
    print_chip_faults("nor", ChipKind::kNor);
    std::cout << "[[adapter.phy.fault]]\nkind: " << joined(phy_fault_kind_names()) << "\n\n";
    std::vector<std::string_view> calls;
    std::ranges::transform(kNamedCalls, std::back_inserter(calls), &NamedCall::name);
    std::cout << "[[firmware_fault]]\ncall: " << joined(calls) << '\n';
}

} // namespace

const std::map<std::string, void (*)()>& list_topics() {
    static const std::map<std::string, void (*)()> kTopics = {
        {"parts",    print_parts   },
        {"adapters", print_adapters},
        {"faults",   print_faults  },
    };
    return kTopics;
}

} // namespace emulator
