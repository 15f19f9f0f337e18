// The program's one door to the UEFI headers. Every firmware call goes through the Microsoft
// calling convention, on a Linux host too, so that the same tables can be filled by either.
#pragma once

#if __has_include(<Uefi.h>)
// Inside an EDK II tree. The older shell's interface needs the loaded image before it.
extern "C" {
#include <Uefi.h>

#include <Protocol/LoadedImage.h>

#include <Protocol/EfiShellInterface.h>
#include <Protocol/PciRootBridgeIo.h>
#include <Protocol/Shell.h>
#include <Protocol/ShellParameters.h>
}
// What goes by other names there.
inline constexpr EFI_STATUS EFI_ERROR_MASK = MAX_BIT;
inline constexpr auto EfiPciIoWidthUint16 = EfiPciWidthUint16;
inline constexpr auto EfiPciIoWidthUint32 = EfiPciWidthUint32;
#define Flink ForwardLink
#define Blink BackLink
#else
#ifndef GNU_EFI_USE_MS_ABI
#define GNU_EFI_USE_MS_ABI
#endif

extern "C" {
#include <efi.h>
#include <efishellintf.h>
}
#endif
