// The program in this process, on emulated firmware.
#pragma once

#include "uefi/firmware.h"

#include <string>
#include <vector>

namespace emulator {

/// Starts the program's entry point as the shell would.
/// @param arguments  the command line's words, the command's name first
/// @returns what the shell gets to see
EFI_STATUS run_program(Firmware& firmware, Shell shell, const std::vector<std::string>& arguments);

/// The command's name as the shell hands it over for an image on the volume.
inline constexpr char kCommandName[] = "FS0:\\qfu.EFI";

} // namespace emulator
