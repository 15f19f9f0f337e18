#include "machine_file.h"

#include "support/table_reader.h"
#include "uefi/call_faults.h"

#include <algorithm>

namespace emulator {
namespace {

using support::TableReader;

Fault read_fault(const toml::table& table, const std::filesystem::path& file) {
    TableReader reader(table, file);
    Fault fault;
    const auto kind = fault_kind_named(reader.text("kind"));
    if (!kind) {
        reader.fail("kind", "is no kind of fault that is known");
    }
    fault.kind = *kind;
    if (reader.has("on")) {
        fault.on = operation_named(reader.text("on"));
        if (!fault.on) {
            reader.fail("on", "is no operation that is known");
        }
    }
    if (reader.has("address")) {
        fault.address = static_cast<std::uint32_t>(reader.number("address", 0, 0xFFFFFF));
    }
    fault.nth = static_cast<std::uint64_t>(reader.number("nth", 1, INT64_MAX, 1));
    fault.times = static_cast<std::uint64_t>(reader.number("times", 0, INT64_MAX, 0));
    fault.mask = static_cast<std::uint8_t>(reader.number("mask", 0, 0xFF, 0xFF));
    reader.finish();
    return fault;
}

std::vector<Fault> read_faults(TableReader& reader, const std::filesystem::path& file) {
    std::vector<Fault> faults;
    for (const toml::table* fault : reader.tables("fault")) {
        faults.push_back(read_fault(*fault, file));
    }
    return faults;
}

SpiChipDescription read_spi(const toml::table& table, const std::filesystem::path& file) {
    TableReader reader(table, file);
    SpiChipDescription chip{};
    chip.part = find_spi_part(reader.text("part"));
    if (chip.part == nullptr) {
        reader.fail("part", "is no part that the emulator knows");
    }
    chip.image = reader.text("image", "");
    if (reader.has("status")) {
        chip.status = static_cast<std::uint8_t>(reader.number("status", 0, 0xFF));
    }
    chip.faults = read_faults(reader, file);
    reader.finish();
    return chip;
}

NorChipDescription read_nor(const toml::table& table, const std::filesystem::path& file) {
    TableReader reader(table, file);
    NorChipDescription chip{};
    chip.part = find_nor_part(static_cast<std::uint32_t>(reader.number("id", 0, UINT32_MAX)));
    if (chip.part == nullptr) {
        reader.fail("id", "is no part that the emulator knows");
    }
    chip.image = reader.text("image", "");
    chip.faults = read_faults(reader, file);
    reader.finish();
    return chip;
}

PhyFault read_phy_fault(const toml::table& table, const std::filesystem::path& file,
                        std::uint8_t ports) {
    TableReader reader(table, file);
    PhyFault fault;
    const auto kind = phy_fault_kind_named(reader.text("kind"));
    if (!kind) {
        reader.fail("kind", "is no kind of PHY fault that is known");
    }
    fault.kind = *kind;
    fault.port = static_cast<std::uint8_t>(reader.number("port", 0, ports - 1));
    fault.nth = static_cast<std::uint64_t>(reader.number("nth", 1, INT64_MAX, 1));
    fault.times = static_cast<std::uint64_t>(reader.number("times", 0, INT64_MAX, 0));
    const std::int64_t usual_value = fault.kind == PhyFaultKind::kErrors ? 1 : 0;
    fault.value = static_cast<std::uint32_t>(reader.number("value", 0, UINT32_MAX, usual_value));
    reader.finish();
    return fault;
}

PhyDescription read_phy(const toml::table& table, const std::filesystem::path& file,
                        std::uint8_t ports) {
    TableReader reader(table, file);
    PhyDescription phy{};
    if (reader.has("ports_implemented")) {
        phy.ports_implemented =
            static_cast<std::uint32_t>(reader.number("ports_implemented", 0, UINT32_MAX));
    }
    for (const toml::table* fault : reader.tables("fault")) {
        phy.faults.push_back(read_phy_fault(*fault, file, ports));
    }
    reader.finish();
    return phy;
}

AdapterDescription read_adapter(const toml::table& table, const std::filesystem::path& file) {
    constexpr std::int64_t kUsualVendor = 0x1E5D;
    TableReader reader(table, file);
    AdapterDescription adapter{};
    const auto vendor =
        static_cast<std::uint16_t>(reader.number("vendor", 0, 0xFFFF, kUsualVendor));
    const auto device = static_cast<std::uint16_t>(reader.number("device", 0, 0xFFFF));
    adapter.model = find_adapter_model(vendor, device);
    if (adapter.model == nullptr) {
        reader.fail("device", "is no adapter that the emulator knows");
    }
    adapter.address = {static_cast<std::uint8_t>(reader.number("bus", 0, 255, 0)),
                       static_cast<std::uint8_t>(reader.number("slot", 0, 31)),
                       static_cast<std::uint8_t>(reader.number("function", 0, 7, 0))};
    adapter.revision = static_cast<std::uint8_t>(reader.number("revision", 0, 0xFF, 0));
    if (const toml::table* spi = reader.table("spi")) {
        adapter.spi = read_spi(*spi, file);
    }
    if (const toml::table* nor = reader.table("nor")) {
        if (adapter.model->interface != Interface::kBar2) {
            reader.fail("nor", "is nothing that this adapter has");
        }
        adapter.nor = read_nor(*nor, file);
    }
    if (const toml::table* phy = reader.table("phy")) {
        if (adapter.model->interface != Interface::kIndexed) {
            reader.fail("phy", "is nothing that this adapter has");
        }
        adapter.phy = read_phy(*phy, file, adapter.model->ports);
    }
    reader.finish();
    return adapter;
}

FirmwareFaultDescription read_firmware_fault(const toml::table& table,
                                             const std::filesystem::path& file) {
    TableReader reader(table, file);
    FirmwareFaultDescription fault{
        reader.text("call"), static_cast<std::uint64_t>(reader.number("nth", 1, INT64_MAX, 1)),
        static_cast<std::uint64_t>(reader.number("times", 0, INT64_MAX, 1))};
    if (std::ranges::none_of(kNamedCalls,
                             [&](const NamedCall& call) { return call.name == fault.call; })) {
        reader.fail("call", "is no firmware call that is known");
    }
    reader.finish();
    return fault;
}

BusyTimes read_times(TableReader& reader) {
    const std::string times = reader.text("time", "typical");
    if (times == "typical") {
        return {};
    }
    if (times != "none") {
        reader.fail("time", "must be \"typical\" or \"none\"");
    }
    return kNeverBusy;
}

void apply(const PhyDescription& description, PhyBlock& phy) {
    if (description.ports_implemented) {
        phy.set_ports_implemented(*description.ports_implemented);
    }
    for (const PhyFault& fault : description.faults) {
        phy.add_fault(fault);
    }
}

} // namespace

MachineDescription load_machine_file(const std::filesystem::path& file) {
    const toml::table root = support::parse_toml(file);
    TableReader reader(root, file);
    MachineDescription machine{read_times(reader), {}, {}};
    for (const toml::table* fault : reader.tables("firmware_fault")) {
        machine.firmware_faults.push_back(read_firmware_fault(*fault, file));
    }
    for (const toml::table* adapter : reader.tables("adapter")) {
        machine.adapters.push_back(read_adapter(*adapter, file));
    }
    reader.finish();
    return machine;
}

std::unique_ptr<Machine> build_machine(const MachineDescription& description, const Clock& clock,
                                       ImageFiles& images) {
    auto machine = std::make_unique<Machine>(clock);
    for (const AdapterDescription& a : description.adapters) {
        Adapter& adapter = machine->add(*a.model, a.address, a.revision);
        if (a.spi) {
            SpiChip& chip = machine->add_spi_chip(adapter, *a.spi->part, description.times,
                                                  images.open(a.spi->image, a.spi->part->size));
            if (a.spi->status) {
                chip.set_status(*a.spi->status);
            }
            for (const Fault& fault : a.spi->faults) {
                chip.faults().add(fault);
            }
        }
        if (a.nor) {
            NorChip& chip = machine->add_nor_chip(adapter, *a.nor->part, description.times,
                                                  images.open(a.nor->image, a.nor->part->size));
            for (const Fault& fault : a.nor->faults) {
                chip.faults().add(fault);
            }
        }
        if (a.phy) {
            apply(*a.phy, *adapter.phy());
        }
    }
    return machine;
}

} // namespace emulator
