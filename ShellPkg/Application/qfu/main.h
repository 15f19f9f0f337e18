// The way in from the shell.
#pragma once

#include "platform/efi.h"

#include <cstddef>

/// Arguments of the command line that are looked at, and the budget for their text: two bytes a
/// character.
inline constexpr std::size_t QFU_MAX_ARGS = 50;
inline constexpr std::size_t QFU_ARG_TEXT_SIZE = 1024;

/// The image's entry point: takes the arguments from the shell that started it and runs `qfu_main`.
/// @returns EFI_SUCCESS when that returns 0, else EFI_UNSUPPORTED
extern "C" EFI_STATUS EFIAPI qfu_entry(EFI_HANDLE image, EFI_SYSTEM_TABLE* table);

/// One run of the program: arguments, request, discovery, choice of adapter, command, clean-up.
/// @param argc  number of arguments, the command's name first
/// @param argv  the shell's UCS-2 strings
/// @returns 0, also when the command failed on its adapter; else the status that ended the run
EFI_STATUS qfu_main(std::size_t argc, const CHAR16* const* argv);
