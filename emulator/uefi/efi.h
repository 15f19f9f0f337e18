// The UEFI headers, with the firmware's calling convention on the host too.
#pragma once

#ifndef GNU_EFI_USE_MS_ABI
#define GNU_EFI_USE_MS_ABI
#endif

extern "C" {
#include <efi.h>
#include <efishellintf.h>
}
