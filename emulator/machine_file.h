// Machine files: the TOML description of a machine, for the emulator and for QEMU.
#pragma once

#include "hardware/machine.h"
#include "image_files.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace emulator {

/// One serial flash chip of a machine file.
struct SpiChipDescription {
    const SpiPart* part;
    std::filesystem::path image; ///< contents, kept from run to run; empty: a blank chip each time
    std::optional<std::uint8_t> status;
    std::vector<Fault> faults;
};

/// One parallel flash chip of a machine file.
struct NorChipDescription {
    const NorPart* part;
    std::filesystem::path image; ///< contents, kept from run to run; empty: a blank chip each time
    std::vector<Fault> faults;
};

/// What is special about an adapter's PHY test block.
struct PhyDescription {
    std::optional<std::uint32_t> ports_implemented;
    std::vector<PhyFault> faults;
};

/// One adapter of a machine file.
struct AdapterDescription {
    const AdapterModel* model;
    PciAddress address;
    std::uint8_t revision;
    std::optional<SpiChipDescription> spi;
    std::optional<NorChipDescription> nor;
    std::optional<PhyDescription> phy;
};

/// A firmware call of a machine file that fails, by its name.
struct FirmwareFaultDescription {
    std::string call;
    std::uint64_t nth;
    std::uint64_t times;
};

/// A machine file.
struct MachineDescription {
    BusyTimes times;
    std::vector<FirmwareFaultDescription> firmware_faults; ///< for firmware in a process alone
    std::vector<AdapterDescription> adapters;
};

/// Reads a machine file. Image names are taken from the current directory.
/// @throws support::InputError when the file cannot be used
MachineDescription load_machine_file(const std::filesystem::path& file);

/// Builds the described machine. Chips that have an image file keep their contents in it, through
/// `images`, which must outlive the machine.
/// @throws support::InputError when an image file cannot be used
std::unique_ptr<Machine> build_machine(const MachineDescription& description, const Clock& clock,
                                       ImageFiles& images);

} // namespace emulator
