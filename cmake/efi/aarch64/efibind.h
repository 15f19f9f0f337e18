// Debian's gnu-efi for x86-64 comes without the basic types of AArch64. They are those of x86-64,
// except that the one calling convention there is needs no name.
#pragma once
#define EFIAPI
#include <x86_64/efibind.h>
