#include "shell_variable.h"

namespace {

// The shell takes its variables from those of firmware that have this vendor.
EFI_GUID shell_vendor = {
    0x158DEF5A, 0xF656, 0x419C, {0xB0, 0x27, 0x7A, 0x31, 0x92, 0xC0, 0x79, 0xD2}
};

} // namespace

void set_shell_variable(EFI_SYSTEM_TABLE* system, const char16_t* variable,
                        std::span<const char16_t> text) {
    system->RuntimeServices->SetVariable(reinterpret_cast<CHAR16*>(const_cast<char16_t*>(variable)),
                                         &shell_vendor, EFI_VARIABLE_BOOTSERVICE_ACCESS,
                                         text.size_bytes(), const_cast<char16_t*>(text.data()));
}
