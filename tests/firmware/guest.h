// A guest with real UEFI firmware and its shell.
#pragma once

#include "guest/launcher.h"
#include "hardware/machine.h"
#include "tests/scratch_folder.h"

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace firmware {

/// Told about each line on the serial console; returns keys to press there. May be empty.
using Operator = std::function<std::string(const std::string& line)>;

/// What a guest is, and which build of the program runs in it.
struct Platform {
    std::string_view name;
    std::string_view build; ///< folder in build/ with the program
    const emulator::GuestKind& guest;
};

inline constexpr Platform kX64{"x64", "efi", emulator::kX64Guest};
inline constexpr Platform kAArch64{"aarch64", "efi-aarch64", emulator::kAArch64Guest};

/// The platform of that name. "clang" has the program by the second compiler, "edk2" as
/// scripts/edk2 builds it. @throws std::runtime_error when there is none
const Platform& platform_named(std::string_view name);

/// Boots a guest with the bridge's adapters and a volume that holds `volume` and `script` as its
/// start-up script, and waits until it powers off. `volume` gets what the guest left there.
/// @returns everything on the serial console
/// @throws std::runtime_error when it cannot be started or takes longer than four minutes
std::string run_guest(const Platform& platform, emulator::GuestBridge& bridge, lab::Files& volume,
                      const std::string& script, const Operator& at_console);

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

/// The built program and its manual, which every volume needs, and the driver where it is used.
void add_program(lab::Files& volume, const Platform& platform);

} // namespace firmware
