// Machine files: the TOML description of a machine, for the emulator and for QEMU.
#pragma once

#include "hardware/machine.h"
#include "image_files.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace emulator {

/// A fault of a chip, and the line of the machine file that it begins on.
struct FaultDescription {
    Fault fault;
    std::size_t line;
};

/// A loss of power of an adapter, and the line of the machine file that it begins on.
struct PowerFaultDescription {
    PowerFault fault;
    std::size_t line;
};

/// A fault of a port, and the line of the machine file that it begins on.
struct PhyFaultDescription {
    PhyFault fault;
    std::size_t line;
};

/// One serial flash chip of a machine file.
struct SpiChipDescription {
    const SpiPart* part;
    std::filesystem::path image; ///< contents, kept from run to run; empty: a blank chip each time
    std::optional<std::uint8_t> status;
    std::vector<FaultDescription> faults;
};

/// One parallel flash chip of a machine file.
struct NorChipDescription {
    const NorPart* part;
    std::filesystem::path image; ///< contents, kept from run to run; empty: a blank chip each time
    std::vector<FaultDescription> faults;
};

/// What is special about an adapter's PHY test block.
struct PhyDescription {
    std::optional<std::uint32_t> ports_implemented;
    std::vector<PhyFaultDescription> faults;
};

/// One adapter of a machine file.
struct AdapterDescription {
    const AdapterModel* model;
    PciAddress address;
    std::uint8_t revision;
    std::optional<SpiChipDescription> spi;
    std::optional<NorChipDescription> nor;
    std::optional<PhyDescription> phy;
    std::vector<PowerFaultDescription> faults;
    std::optional<AccessTimes> access_times; ///< in a process; in a guest time is real
    std::size_t line;                        ///< of the machine file
};

/// A firmware call of a machine file that fails, by its name.
struct FirmwareFaultDescription {
    std::string call;
    std::uint64_t nth;
    std::uint64_t times;
    std::size_t line; ///< of the machine file
};

/// A machine file.
struct MachineDescription {
    std::filesystem::path file;
    BusyTimes times;
    std::vector<FirmwareFaultDescription> firmware_faults; ///< for firmware in a process alone
    std::vector<AdapterDescription> adapters;
};

/// Reads a machine file. Image names are taken from the current directory.
/// @throws support::InputError when the file cannot be used
MachineDescription load_machine_file(const std::filesystem::path& file);

/// The same from a text of that name.
MachineDescription parse_machine(const std::string& text, const std::filesystem::path& name);

/// Builds the described machine. Chips that have an image file keep their contents in it, through
/// `images`, which must outlive the machine.
/// @throws support::InputError when an image file cannot be used
std::unique_ptr<Machine> build_machine(const MachineDescription& description, const Clock& clock,
                                       ImageFiles& images);

/// The lines of hardware faults that changed nothing so far, in the order of the machine file.
std::vector<std::size_t> idle_faults(const MachineDescription& description, const Machine& machine);

} // namespace emulator
