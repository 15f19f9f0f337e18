#include "shell.h"

#include "system.h"

namespace platform {
namespace {

template <class Protocol>
Protocol* open_on_image(EFI_GUID guid) {
    void* interface = nullptr;
    const System& s = system();
    if (s.boot->OpenProtocol(s.image, &guid, &interface, s.image, nullptr,
                             EFI_OPEN_PROTOCOL_GET_PROTOCOL) != EFI_SUCCESS) {
        return nullptr;
    }
    return static_cast<Protocol*>(interface);
}

bool ask_for_break() {
    const System& s = system();
    if (s.shell != nullptr) {
        return s.boot->CheckEvent(s.shell->ExecutionBreak) == EFI_SUCCESS;
    }
    return s.older_shell != nullptr && s.older_shell->get_execution_break() != 0;
}

} // namespace

bool arguments(Arguments& out) {
    if (const auto* parameters =
            open_on_image<EFI_SHELL_PARAMETERS_PROTOCOL>(EFI_SHELL_PARAMETERS_PROTOCOL_GUID)) {
        out = {parameters->Argc, parameters->Argv};
        return true;
    }
    if (const auto* older = open_on_image<EFI_SHELL_INTERFACE>(SHELL_INTERFACE_PROTOCOL_GUID)) {
        out = {older->Argc, older->Argv};
        return true;
    }
    return false;
}

bool break_requested() {
    System& s = system();
    if (s.break_shields != 0) {
        return false;
    }
    s.break_seen = s.break_seen || ask_for_break();
    return s.break_seen;
}

bool break_seen() {
    return system().break_seen;
}

const CHAR16* shell_variable(const char* name) {
    constexpr std::size_t LONGEST = 15;
    CHAR16 wide[LONGEST + 1] = {};
    for (std::size_t i = 0; name[i] != 0 && i < LONGEST; ++i) {
        wide[i] = static_cast<unsigned char>(name[i]);
    }
    return system().shell == nullptr ? nullptr : system().shell->GetEnv(wide);
}

BreakShield::BreakShield() {
    ++system().break_shields;
}

BreakShield::~BreakShield() {
    --system().break_shields;
}

} // namespace platform
