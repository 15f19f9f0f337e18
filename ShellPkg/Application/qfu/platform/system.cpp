#include "system.h"

namespace platform {
namespace {

constexpr EFI_GUID SHELL_PROTOCOL = EFI_SHELL_PROTOCOL_GUID;
constexpr EFI_GUID OLDER_ENVIRONMENT = {
    0x47c7b221, 0xc42a, 0x11d2, {0x8e, 0x57, 0x00, 0xa0, 0xc9, 0x69, 0x72, 0x3b}
};
constexpr EFI_GUID OLDER_ENVIRONMENT_EXTENSION = {
    0xd2c18636, 0x40e5, 0x4eb5, {0xa3, 0x1b, 0x36, 0x69, 0x5f, 0xd4, 0x2c, 0x87}
};

constinit System attached{};

void* locate(EFI_GUID protocol) {
    void* interface = nullptr;
    if (attached.boot->LocateProtocol(&protocol, nullptr, &interface) != EFI_SUCCESS) {
        return nullptr;
    }
    return interface;
}

bool same_guid(const EFI_GUID& a, const EFI_GUID& b) {
    if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) {
        return false;
    }
    for (int i = 0; i < 8; ++i) {
        if (a.Data4[i] != b.Data4[i]) {
            return false;
        }
    }
    return true;
}

} // namespace

void attach(EFI_HANDLE image, EFI_SYSTEM_TABLE* table) {
    attached = System{};
    attached.image = image;
    attached.table = table;
    attached.boot = table->BootServices;
    attached.runtime = table->RuntimeServices;
    attached.shell = static_cast<EFI_SHELL_PROTOCOL*>(locate(SHELL_PROTOCOL));
    if (attached.shell == nullptr) {
        auto* older = static_cast<OlderShellEnvironment*>(locate(OLDER_ENVIRONMENT));
        // The first environment ends before the break query; only the extended one carries it.
        if (older != nullptr && same_guid(older->extension, OLDER_ENVIRONMENT_EXTENSION)) {
            attached.older_shell = older;
        }
    }
}

void restart(bool power_off) {
    attached.runtime->ResetSystem(power_off ? EfiResetShutdown : EfiResetCold, EFI_SUCCESS, 0,
                                  nullptr);
}

System& system() {
    return attached;
}

} // namespace platform
