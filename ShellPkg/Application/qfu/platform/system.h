// The firmware's tables as the image's entry point received them.
#pragma once

#include "efi.h"

#include <cstdint>

namespace platform {

/// The head of the older shell's environment protocol, down to the break query. Only the break
/// query is called; the services before it are named to give it its place.
struct OlderShellEnvironment {
    void* execute;
    void* get_environment;
    void* get_map;
    void* add_command;
    void* add_protocol;
    void* get_protocol;
    void* current_directory;
    void* file_meta_argument;
    void* free_file_list;
    void* new_shell;
    void* batch_is_active;
    void* free_resources;
    EFI_GUID extension; ///< tells the extended environment, which has the rest, from the first one
    std::uint32_t major_version;
    std::uint32_t minor_version;
    void* enable_page_break;
    void* disable_page_break;
    void* get_page_break;
    void* set_key_filter;
    void* get_key_filter;
    BOOLEAN(EFIAPI* get_execution_break)();
};

/// What the rest of the platform layer calls through. Valid from `attach` to the end of the run.
struct System {
    EFI_HANDLE image;
    EFI_SYSTEM_TABLE* table;
    EFI_BOOT_SERVICES* boot;
    EFI_RUNTIME_SERVICES* runtime;
    EFI_SHELL_PROTOCOL* shell;          ///< null under an older shell
    OlderShellEnvironment* older_shell; ///< null under a shell with the shell protocol
    bool break_seen;                    ///< the user has broken the running command
    std::uint32_t break_shields;        ///< that exist now
    std::uint32_t refused_reads;        ///< by the root bridge
    std::uint32_t refused_writes;
    bool pauses_limited;
    std::uint64_t pause_left_us; ///< until the limit
};

/// Takes over the tables that the image's entry point was given and finds the running shell.
void attach(EFI_HANDLE image, EFI_SYSTEM_TABLE* table);

/// Starts the machine again, or turns it off. Returns when the firmware cannot.
void restart(bool power_off);

/// The attached tables.
System& system();

} // namespace platform
