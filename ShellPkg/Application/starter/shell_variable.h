// How programs of the medium tell its scripts something.
#pragma once

#include "efi.h"

#include <span>

/// Sets a variable that every shell started later has. Restart and power-off forget it.
void set_shell_variable(EFI_SYSTEM_TABLE* system, const char16_t* variable,
                        std::span<const char16_t> text);
