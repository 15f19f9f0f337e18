#include "machine_file.h"

#include "hardware/hex.h"
#include "qfu/discover.h"
#include "support/output_file.h"
#include "support/table_reader.h"
#include "uefi/call_faults.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace emulator {
namespace {

using support::TableReader;

std::string in_quotes(std::string_view word) {
    return "\"" + std::string(word) + "\"";
}

std::string hexadecimal(std::uint64_t value, int digits) {
    return "0x" + hex(value, digits);
}

/// One file's reading: what was found so far, so that nothing is given twice.
class MachineReader {
  public:
    explicit MachineReader(std::filesystem::path file) : file_(std::move(file)) {}

    MachineDescription read(const toml::table& root);

  private:
    struct Chip {
        ChipKind kind;
        std::uint32_t size;
    };
    struct Image {
        std::filesystem::path name;
        std::size_t line;
    };

    AdapterDescription read_adapter(const toml::table& table);
    static const AdapterModel* read_model(TableReader& reader);
    PciAddress read_place(TableReader& reader);
    SpiChipDescription read_spi(const toml::table& table);
    NorChipDescription read_nor(const toml::table& table);
    PowerFaultDescription read_power_fault(const toml::table& table) const;
    AccessTimes read_access_times(const toml::table& table) const;
    PhyDescription read_phy(const toml::table& table, std::uint8_t ports) const;
    std::filesystem::path read_image(TableReader& reader);
    std::vector<FaultDescription> read_faults(TableReader& reader, Chip chip) const;
    FaultDescription read_fault(const toml::table& table, Chip chip) const;
    PhyFaultDescription read_phy_fault(const toml::table& table, std::uint8_t ports) const;
    FirmwareFaultDescription read_firmware_fault(const toml::table& table) const;

    std::filesystem::path file_;
    std::vector<Image> images_;
    std::vector<AdapterDescription> adapters_;
};

Operation read_operation(TableReader& reader, FaultKind kind, ChipKind chip) {
    const std::string word = reader.text("on");
    const auto allowed = operations_of(chip, kind);
    if (std::ranges::find(allowed, word) != allowed.end()) {
        return *operation_named(word);
    }
    std::string what = in_quotes(fault_kind_name(kind)) + " has no effect on " + in_quotes(word) +
                       " of such a chip; allowed:";
    for (const std::string_view operation : allowed) {
        what.append(operation == allowed.front() ? " " : ", ");
        what.append(in_quotes(operation));
    }
    reader.fail("on", what);
}

FaultDescription MachineReader::read_fault(const toml::table& table, Chip chip) const {
    TableReader reader(table, file_);
    Fault fault;
    const std::string word = reader.text("kind");
    const auto kind = fault_kind_named(word);
    if (!kind) {
        reader.fail("kind", support::unknown_word("kind of fault", word, fault_kind_names()));
    }
    fault.kind = *kind;
    if (reader.has("on")) {
        fault.on = read_operation(reader, *kind, chip.kind);
    }
    if (reader.has("address")) {
        if (fault.on && !has_address(*fault.on)) {
            reader.fail("address", in_quotes(operation_name(*fault.on)) + " has no address");
        }
        fault.address = static_cast<std::uint32_t>(reader.number("address", 0, UINT32_MAX));
        if (*fault.address >= chip.size) {
            reader.fail("address", "is past the end of the chip; the last is " +
                                       hexadecimal(chip.size - 1, 1));
        }
    }
    fault.nth = static_cast<std::uint64_t>(reader.number("nth", 1, INT64_MAX, 1));
    fault.times = static_cast<std::uint64_t>(reader.number("times", 0, INT64_MAX, 0));
    if (reader.has("mask") && !has_mask(*kind)) {
        reader.fail("mask", in_quotes(word) + " has none; \"stuck bits\" and \"wrong data\" have");
    }
    fault.mask = static_cast<std::uint8_t>(reader.number("mask", 1, 0xFF, 0xFF));
    reader.finish();
    return {fault, reader.line()};
}

std::vector<FaultDescription> MachineReader::read_faults(TableReader& reader, Chip chip) const {
    std::vector<FaultDescription> faults;
    for (const toml::table* fault : reader.tables("fault")) {
        faults.push_back(read_fault(*fault, chip));
    }
    return faults;
}

std::filesystem::path MachineReader::read_image(TableReader& reader) {
    std::filesystem::path image = reader.text("image", "");
    if (image.empty()) {
        return image;
    }
    if (support::is_same_file(image, file_)) {
        reader.fail("image", "is this machine file");
    }
    for (const Image& other : images_) {
        if (support::is_same_file(image, other.name)) {
            reader.fail("image", "is the image of the chip of line " + std::to_string(other.line) +
                                     " too; each chip needs its own");
        }
    }
    images_.push_back({image, reader.line()});
    return image;
}

SpiChipDescription MachineReader::read_spi(const toml::table& table) {
    TableReader reader(table, file_);
    SpiChipDescription chip{};
    const std::string part = reader.text("part");
    chip.part = find_spi_part(part);
    if (chip.part == nullptr) {
        reader.fail("part",
                    "unknown part " + in_quotes(part) + "; \"qfu-emu list parts\" prints all");
    }
    chip.image = read_image(reader);
    if (reader.has("status")) {
        chip.status = static_cast<std::uint8_t>(reader.number("status", 0, 0xFF));
    }
    chip.faults = read_faults(reader, {ChipKind::kSpi, chip.part->size});
    reader.finish();
    return chip;
}

NorChipDescription MachineReader::read_nor(const toml::table& table) {
    TableReader reader(table, file_);
    NorChipDescription chip{};
    const auto id = static_cast<std::uint32_t>(reader.number("id", 0, UINT32_MAX));
    chip.part = find_nor_part(id);
    if (chip.part == nullptr) {
        reader.fail("id",
                    "unknown part " + hexadecimal(id, 8) + "; \"qfu-emu list parts\" prints all");
    }
    chip.image = read_image(reader);
    chip.faults = read_faults(reader, {ChipKind::kNor, chip.part->size});
    reader.finish();
    return chip;
}

PowerFaultDescription MachineReader::read_power_fault(const toml::table& table) const {
    TableReader reader(table, file_);
    if (reader.text("kind") != kPowerFaultKind) {
        reader.fail("kind", "must be " + in_quotes(kPowerFaultKind));
    }
    constexpr std::int64_t kLongestUs = INT64_MAX / 2000; // in nanoseconds a time still fits
    PowerFault fault;
    if (reader.has("nth") == reader.has("at_us")) {
        reader.fail("kind", "\"power\" goes either in the register access \"nth\" or at the time "
                            "\"at_us\"; give one of them");
    }
    if (reader.has("nth")) {
        fault.nth = static_cast<std::uint64_t>(reader.number("nth", 1, INT64_MAX));
    } else {
        fault.at_us = static_cast<std::uint64_t>(reader.number("at_us", 0, kLongestUs));
    }
    fault.off_us = static_cast<std::uint64_t>(reader.number("off_us", 0, kLongestUs, 0));
    reader.finish();
    return {fault, reader.line()};
}

PhyFaultDescription MachineReader::read_phy_fault(const toml::table& table,
                                                  std::uint8_t ports) const {
    TableReader reader(table, file_);
    PhyFault fault;
    const std::string word = reader.text("kind");
    const auto kind = phy_fault_kind_named(word);
    if (!kind) {
        reader.fail("kind",
                    support::unknown_word("kind of PHY fault", word, phy_fault_kind_names()));
    }
    fault.kind = *kind;
    fault.port = static_cast<std::uint8_t>(reader.number("port", 0, ports - 1));
    fault.nth = static_cast<std::uint64_t>(reader.number("nth", 1, INT64_MAX, 1));
    fault.times = static_cast<std::uint64_t>(reader.number("times", 0, INT64_MAX, 0));
    const bool errors = fault.kind == PhyFaultKind::kErrors;
    if (reader.has("value") && !errors && fault.kind != PhyFaultKind::kCount) {
        reader.fail("value", in_quotes(word) + " has none; \"errors\" and \"count\" have");
    }
    fault.value = static_cast<std::uint32_t>(
        reader.number("value", errors ? 1 : 0, UINT32_MAX, errors ? 1 : 0));
    reader.finish();
    return {fault, reader.line()};
}

PhyDescription MachineReader::read_phy(const toml::table& table, std::uint8_t ports) const {
    TableReader reader(table, file_);
    PhyDescription phy{};
    if (reader.has("ports_implemented")) {
        phy.ports_implemented =
            static_cast<std::uint32_t>(reader.number("ports_implemented", 0, UINT32_MAX));
    }
    for (const toml::table* fault : reader.tables("fault")) {
        phy.faults.push_back(read_phy_fault(*fault, ports));
    }
    reader.finish();
    return phy;
}

AccessTimes MachineReader::read_access_times(const toml::table& table) const {
    constexpr std::int64_t kMost = 1'000'000;
    constexpr AccessTimes kTypical;
    TableReader reader(table, file_);
    const AccessTimes times{
        static_cast<std::uint64_t>(reader.number("read", 0, kMost, std::int64_t{kTypical.read_ns})),
        static_cast<std::uint64_t>(
            reader.number("write", 0, kMost, std::int64_t{kTypical.write_ns}))};
    reader.finish();
    return times;
}

const AdapterModel* MachineReader::read_model(TableReader& reader) {
    const auto vendor =
        static_cast<std::uint16_t>(reader.number("vendor", 0, 0xFFFF, QFU_USUAL_VENDOR));
    const auto device = static_cast<std::uint16_t>(reader.number("device", 0, 0xFFFF));
    const AdapterModel* model = find_adapter_model(vendor, device);
    if (model == nullptr) {
        reader.fail("device", "unknown adapter " + hexadecimal(device, 4) + " of vendor " +
                                  hexadecimal(vendor, 4) +
                                  "; \"qfu-emu list adapters\" prints all");
    }
    return model;
}

PciAddress MachineReader::read_place(TableReader& reader) {
    // An adapter elsewhere would not be found.
    const PciAddress place{static_cast<std::uint8_t>(reader.number("bus", 0, QFU_LAST_BUS, 0)),
                           static_cast<std::uint8_t>(reader.number("slot", 0, QFU_LAST_DEVICE)), 0};
    const auto other = std::ranges::find(adapters_, place, &AdapterDescription::address);
    if (other != adapters_.end()) {
        reader.fail("slot",
                    "the adapter of line " + std::to_string(other->line) + " is there already");
    }
    return place;
}

AdapterDescription MachineReader::read_adapter(const toml::table& table) {
    TableReader reader(table, file_);
    AdapterDescription adapter{};
    adapter.line = reader.line();
    adapter.model = read_model(reader);
    adapter.address = read_place(reader);
    adapter.revision = static_cast<std::uint8_t>(reader.number("revision", 0, 0xFF, 0));
    if (const toml::table* spi = reader.table("spi")) {
        adapter.spi = read_spi(*spi);
    }
    if (const toml::table* nor = reader.table("nor")) {
        if (adapter.model->interface != Interface::kBar2) {
            reader.fail("nor", "this adapter has no NOR flash; those of kind 2 have, see "
                               "\"qfu-emu list adapters\"");
        }
        adapter.nor = read_nor(*nor);
    }
    if (const toml::table* phy = reader.table("phy")) {
        if (adapter.model->interface != Interface::kIndexed) {
            reader.fail("phy", "this adapter has no PHY test; those of kind 1 have, see "
                               "\"qfu-emu list adapters\"");
        }
        adapter.phy = read_phy(*phy, adapter.model->ports);
    }
    if (const toml::table* access = reader.table("access_ns")) {
        adapter.access_times = read_access_times(*access);
    }
    for (const toml::table* fault : reader.tables("fault")) {
        adapter.faults.push_back(read_power_fault(*fault));
    }
    reader.finish();
    return adapter;
}

FirmwareFaultDescription MachineReader::read_firmware_fault(const toml::table& table) const {
    TableReader reader(table, file_);
    FirmwareFaultDescription fault{
        reader.text("call"), static_cast<std::uint64_t>(reader.number("nth", 1, INT64_MAX, 1)),
        static_cast<std::uint64_t>(reader.number("times", 0, INT64_MAX, 1)), reader.line()};
    std::vector<std::string_view> calls;
    std::ranges::transform(kNamedCalls, std::back_inserter(calls), &NamedCall::name);
    if (std::ranges::find(calls, fault.call) == calls.end()) {
        reader.fail("call", support::unknown_word("firmware call", fault.call, calls));
    }
    reader.finish();
    return fault;
}

BusyTimes read_times(TableReader& reader) {
    const std::string times = reader.text("time", "typical");
    if (times == "typical") {
        return {};
    }
    if (times == "maximum") {
        return kLongestBusy;
    }
    if (times != "none") {
        reader.fail("time", "must be \"typical\", \"maximum\" or \"none\"");
    }
    return kNeverBusy;
}

MachineDescription MachineReader::read(const toml::table& root) {
    TableReader reader(root, file_);
    MachineDescription machine{file_, read_times(reader), {}, {}};
    for (const toml::table* table : reader.tables("firmware_fault")) {
        const FirmwareFaultDescription fault = read_firmware_fault(*table);
        const auto other =
            std::ranges::find(machine.firmware_faults, fault.call, &FirmwareFaultDescription::call);
        if (other != machine.firmware_faults.end()) {
            TableReader(*table, file_)
                .fail("call", "has a fault already, on line " + std::to_string(other->line));
        }
        machine.firmware_faults.push_back(fault);
    }
    for (const toml::table* adapter : reader.tables("adapter")) {
        adapters_.push_back(read_adapter(*adapter));
    }
    reader.finish();
    machine.adapters = std::move(adapters_);
    return machine;
}

void apply(const PhyDescription& description, PhyBlock& phy) {
    if (description.ports_implemented) {
        phy.set_ports_implemented(*description.ports_implemented);
    }
    for (const PhyFaultDescription& fault : description.faults) {
        phy.add_fault(fault.fault);
    }
}

void add(const std::vector<FaultDescription>& described, Faults& faults) {
    for (const FaultDescription& fault : described) {
        faults.add(fault.fault);
    }
}

/// Adds the lines of described faults that have not struck.
template <class Described, class Faulty>
void collect_idle(const Described& faults, const Faulty& faulty, std::vector<std::size_t>& lines) {
    for (std::size_t i = 0; i < faults.size(); ++i) {
        if (!faulty.has_struck(i)) {
            lines.push_back(faults[i].line);
        }
    }
}

} // namespace

MachineDescription load_machine_file(const std::filesystem::path& file) {
    return MachineReader(file).read(support::parse_toml(file));
}

MachineDescription parse_machine(const std::string& text, const std::filesystem::path& name) {
    std::istringstream in(text);
    return MachineReader(name).read(support::parse_toml(in, name));
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
            add(a.spi->faults, chip.faults());
        }
        if (a.nor) {
            NorChip& chip = machine->add_nor_chip(adapter, *a.nor->part, description.times,
                                                  images.open(a.nor->image, a.nor->part->size));
            add(a.nor->faults, chip.faults());
        }
        if (a.phy) {
            apply(*a.phy, *adapter.phy());
        }
        for (const PowerFaultDescription& fault : a.faults) {
            adapter.add_power_fault(fault.fault);
        }
    }
    return machine;
}

std::vector<std::size_t> idle_faults(const MachineDescription& description,
                                     const Machine& machine) {
    std::vector<std::size_t> lines;
    for (std::size_t i = 0; i < description.adapters.size(); ++i) {
        const AdapterDescription& described = description.adapters[i];
        Adapter& adapter = machine.adapter(i);
        if (described.spi) {
            collect_idle(described.spi->faults, adapter.spi().chip()->faults(), lines);
        }
        if (described.nor) {
            collect_idle(described.nor->faults, adapter.nor()->chip()->faults(), lines);
        }
        if (described.phy) {
            collect_idle(described.phy->faults, *adapter.phy(), lines);
        }
        collect_idle(described.faults, adapter.power(), lines);
    }
    return lines;
}

} // namespace emulator
