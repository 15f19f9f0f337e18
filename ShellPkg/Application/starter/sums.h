// Whether the files of a volume are what they were when it was made.
#pragma once

#include "efi.h"

/// Compares each file that \SHA256SUMS names on the volume of `device` with its sum, and sets the
/// shell variable QfuSums: "ok", or the name of the first file that differs or cannot be read.
void check_sums(EFI_SYSTEM_TABLE* system, EFI_HANDLE device);
