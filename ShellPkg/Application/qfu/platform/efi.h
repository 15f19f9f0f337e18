// The program's one door to the UEFI headers. Every firmware call goes through the Microsoft
// calling convention, on a Linux host too, so that the same tables can be filled by either.
#pragma once

#ifndef GNU_EFI_USE_MS_ABI
#define GNU_EFI_USE_MS_ABI
#endif

extern "C" {
#include <efi.h>
#include <efishellintf.h>
}
