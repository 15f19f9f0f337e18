// Which machine this is, for the scripts of the medium.
#pragma once

#include "efi.h"

/// Sets the shell variables QfuMachine, the UUID that the SMBIOS tables give the machine or else
/// its serial number, and QfuSerial, the serial number. What the tables do not say is "unknown". So
/// is a serial number with other characters than letters, digits, ".", "_" and "-".
void tell_machine_name(EFI_SYSTEM_TABLE* system);
