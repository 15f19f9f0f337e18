// A guest with real UEFI firmware and its shell.
#pragma once

#include "hardware/machine.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace firmware {

/// A file or folder of the guest's volume.
struct VolumeFile {
    std::vector<std::uint8_t> bytes;
    bool read_only = false;
    bool folder = false;

    bool operator==(const VolumeFile&) const = default;
};

/// A volume's files by path, folders separated by "/".
using Volume = std::map<std::string, VolumeFile>;

/// What a guest left behind.
struct GuestResult {
    std::string serial; ///< everything on the serial console
    Volume volume;
};

/// Told about each line on the serial console; returns keys to press there.
using Operator = std::function<std::string(const std::string& line)>;

/// Boots a guest with the machine's adapters and a volume that holds `volume` and `script` as its
/// start-up script, and waits until it powers off.
/// @throws std::runtime_error when it cannot be started or takes longer than two minutes
GuestResult run_guest(emulator::Machine& machine, const Volume& volume, const std::string& script,
                      const Operator& at_console);

std::vector<std::uint8_t> read_bytes(const std::filesystem::path& file);

/// The built program and its manual, which every volume needs.
void add_program(Volume& volume);

} // namespace firmware
