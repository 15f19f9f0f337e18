// QEMU guests that a machine's adapters are put into: the one place that knows QEMU's command line.
#pragma once

#include "guest_bridge.h"
#include "hardware/machine.h"

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace emulator {

/// A guest without drives and adapters.
struct GuestKind {
    std::string_view name;
    std::string_view qemu;
    std::string_view machine;
    std::string_view settings; ///< further words for QEMU
    std::string_view firmware;
    std::string_view variables; ///< what firmware keeps; changes are gone when the guest ends
    std::string_view packages;  ///< where QEMU and firmware come from
    bool secure_boot;
    bool driver; ///< adapters are reached through the bus driver
};

inline constexpr GuestKind kX64Guest{
    .name = "x64",
    .qemu = "qemu-system-x86_64",
    .machine = "q35",
    .settings = "-machine memory-backend=m0 -m 256"
                " -object memory-backend-memfd,id=m0,size=256M,share=on",
    .firmware = "/usr/share/OVMF/OVMF_CODE_4M.fd",
    .variables = "/usr/share/OVMF/OVMF_VARS_4M.fd",
    .packages = "qemu-system-x86 and ovmf",
    .secure_boot = false,
    .driver = false,
};

/// The key of Debian's firmware for tests is in its list of keys.
inline constexpr GuestKind kSecureX64Guest{
    .name = "x64-secure-boot",
    .qemu = kX64Guest.qemu,
    .machine = kX64Guest.machine,
    .settings = kX64Guest.settings,
    .firmware = "/usr/share/OVMF/OVMF_CODE_4M.secboot.fd",
    .variables = "/usr/share/OVMF/OVMF_VARS_4M.snakeoil.fd",
    .packages = kX64Guest.packages,
    .secure_boot = true,
    .driver = false,
};

/// Without a boot menu of QEMU's its firmware waits 5 s for a key.
inline constexpr GuestKind kAArch64Guest{
    .name = "aarch64",
    .qemu = "qemu-system-aarch64",
    .machine = "virt",
    .settings = "-cpu cortex-a57 -m 512 -boot menu=on,splash-time=0",
    .firmware = "/usr/share/AAVMF/AAVMF_CODE.fd",
    .variables = "",
    .packages = "qemu-system-arm and qemu-efi-aarch64",
    .secure_boot = false,
    .driver = true,
};

inline constexpr std::array kGuestKinds{&kX64Guest, &kSecureX64Guest, &kAArch64Guest};

/// What a guest boots from. The guest writes to disks and sticks.
struct Drive {
    enum class Kind { kDisk, kStick, kCd };
    Kind kind;
    std::string image; ///< file name
};

/// A whole guest, except for its adapters.
struct GuestSetup {
    const GuestKind* kind = &kX64Guest;
    std::vector<Drive> drives;
    std::string driver;               ///< bus driver that firmware starts itself; empty: none
    std::vector<std::string> further; ///< words for QEMU
};

/// Makes what connects a machine with a guest of that kind. The machine must outlive it.
/// @throws std::system_error
/// @throws support::InputError for adapters that such a guest cannot have
std::unique_ptr<GuestBridge> make_bridge(const GuestKind& kind, Machine& machine);

/// Starts QEMU with the bridge's adapters in the guest, whose serial console are these descriptors.
/// On a terminal, Ctrl-A and then X ends the guest. It ends with the thread that started it, too.
/// @returns the process, which the caller waits for after `bridge.serve()`
/// @throws support::InputError when QEMU or a file is not found, or the guest has no such drive
pid_t start_guest(const GuestSetup& setup, GuestBridge& bridge, int input, int output);

} // namespace emulator
