// The programs in this process, on emulated firmware.
#pragma once

#include "uefi/firmware.h"

#include <string>
#include <string_view>
#include <vector>

namespace emulator {

/// Starts the entry point of a program as the shell would.
/// @param arguments  the command line's words, the `command_name` of the program first
/// @returns what the shell gets to see
EFI_STATUS run_program(Firmware& firmware, Shell shell, const std::vector<std::string>& arguments);

/// The command's name as the shell hands it over for an image on the volume.
/// @param program  "qfu" or "flash"
inline std::string command_name(std::string_view program) {
    return "FS0:\\" + std::string(program) + ".EFI";
}

} // namespace emulator
