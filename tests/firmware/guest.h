// A guest with real UEFI firmware and its shell.
#pragma once

#include "guest/launcher.h"
#include "hardware/machine.h"
#include "tests/scratch_folder.h"

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
    bool folder = false;

    std::string text() const { return {bytes.begin(), bytes.end()}; }
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

/// What a guest is, and which build of the program runs in it.
struct Platform {
    std::string name;
    std::string build; ///< folder in build/ with the program
    const emulator::GuestKind& guest;
};

extern const Platform kX64;
extern const Platform kX64Clang; ///< the program by the second compiler
extern const Platform kX64Edk2;  ///< the program as scripts/edk2 builds it
extern const Platform kAArch64;

/// The platform of that name. @throws std::runtime_error when there is none
const Platform& platform_named(const std::string& name);

/// Boots a guest with the bridge's adapters and a volume that holds `volume` and `script` as its
/// start-up script, and waits until it powers off.
/// @throws std::runtime_error when it cannot be started or takes longer than four minutes
GuestResult run_guest(const Platform& platform, emulator::GuestBridge& bridge, const Volume& volume,
                      const std::string& script, const Operator& at_console);

/// The same with the adapters of one machine on x86-64.
GuestResult run_guest(emulator::Machine& machine, const Volume& volume, const std::string& script,
                      const Operator& at_console);

/// Keys that no keyboard has: the machine loses its power.
inline constexpr char kPullThePlug[] = "pull the plug";

/// Boots a guest with the machine's adapters from a medium that scripts/media made, and waits until
/// it powers off. A stick keeps what is written to it. A platform with the driver has CDs only.
/// @returns the serial console
std::string boot_medium(const Platform& platform, emulator::Machine& machine,
                        const std::filesystem::path& image, emulator::Drive::Kind medium,
                        const Operator& at_console);

/// Runs a command line of a Linux shell in that folder. @throws std::runtime_error when it fails
void shell(const std::filesystem::path& folder, const std::string& command);

using lab::ScratchFolder;

std::vector<std::uint8_t> read_bytes(const std::filesystem::path& file);

/// The built program and its manual, which every volume needs, and the driver where it is used.
void add_program(Volume& volume, const Platform& platform = kX64);

} // namespace firmware
