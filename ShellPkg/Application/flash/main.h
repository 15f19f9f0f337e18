// The way in from the shell.
#pragma once

#include "qfu/platform/efi.h"

/// The image's entry point: reads the arguments, carries out one command and prints its last line.
/// @returns 0: the flash holds what was asked, or what was read is proved; 1: it does not, or
/// differs; 2: nothing was changed and nothing was proved
extern "C" EFI_STATUS EFIAPI flash_entry(EFI_HANDLE image, EFI_SYSTEM_TABLE* table);
