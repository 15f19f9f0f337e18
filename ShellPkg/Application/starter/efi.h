// The boot medium's one door to the UEFI headers.
#pragma once

#define GNU_EFI_USE_MS_ABI

extern "C" {
#include <efi.h>
}
