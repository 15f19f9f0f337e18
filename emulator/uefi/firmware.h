// UEFI firmware and its shell inside a process: the tables that an application is started with.
#pragma once

#include "call_faults.h"
#include "efi.h"
#include "events.h"
#include "hardware/clock.h"
#include "hardware/machine.h"
#include "pool.h"
#include "shell_files.h"
#include "terminal.h"

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace emulator {

/// Which shell starts the application.
enum class Shell : std::uint8_t {
    kCurrent,      ///< shell protocol and shell parameters
    kNoParameters, ///< shell protocol, but arguments through the older interface
    kOlder,        ///< the older interface and the older environment, no shell protocol
    kNone,         ///< started by the firmware itself
};

/// What a run has not given back, and what it cost.
struct Resources {
    std::size_t pool_bytes;
    std::size_t pool_blocks;
    std::size_t events;
    std::size_t file_lists;
    std::size_t file_handles;

    bool operator==(const Resources&) const = default;
};

/// One firmware at a time can be active in a process: its services carry no pointer to it.
class Firmware {
  public:
    Firmware(Machine& machine, VirtualClock& clock, std::filesystem::path folder);
    Firmware(const Firmware&) = delete;
    Firmware& operator=(const Firmware&) = delete;
    ~Firmware();

    /// Makes the services answer for this firmware and sets the shell's arguments, the command's
    /// name first.
    void activate(Shell shell, const std::vector<std::string>& arguments);

    EFI_HANDLE image() { return &image_; }
    EFI_SYSTEM_TABLE* table() { return &table_; }

    Machine& machine() { return *machine_; }
    VirtualClock& clock() { return *clock_; }
    Terminal& terminal() { return terminal_; }
    ShellFiles& files() { return files_; }
    MemoryPool& pool() { return pool_; }
    FirmwareFaults& faults() { return faults_; }
    Journal& journal() { return machine_->journal(); }
    Resources resources() const;

    /// The user breaks the running command; seen by the next query. May be called from a signal
    /// handler.
    void break_command() { break_pending_ = true; }

    /// Sets a variable of the shell.
    void set_variable(const std::string& name, const std::string& value) {
        variables_[name] = widen(value);
    }

    /// Takes the root bridge away, as on firmware that does not publish one.
    void hide_root_bridge() { root_bridge_hidden_ = true; }

  private:
    struct Services;

    void fill_boot_services();
    void fill_shell_protocol();
    void fill_root_bridge();
    bool query_break();
    bool has_shell_protocol() const {
        return shell_ == Shell::kCurrent || shell_ == Shell::kNoParameters;
    }

    Machine* machine_;
    VirtualClock* clock_;
    FirmwareFaults faults_;
    MemoryPool pool_;
    Events events_;
    Terminal terminal_;
    ShellFiles files_;
    Shell shell_ = Shell::kCurrent;
    std::atomic<bool> break_pending_ = false;
    static_assert(std::atomic<bool>::is_always_lock_free);
    bool root_bridge_hidden_ = false;
    std::map<std::string, std::vector<CHAR16>> variables_;

    int image_ = 0;
    int key_event_ = 0;
    int break_event_ = 0;
    EFI_SYSTEM_TABLE table_{};
    EFI_BOOT_SERVICES boot_{};
    EFI_RUNTIME_SERVICES runtime_{};
    SIMPLE_TEXT_OUTPUT_INTERFACE console_out_{};
    SIMPLE_INPUT_INTERFACE console_in_{};
    EFI_SHELL_PROTOCOL shell_protocol_{};
    EFI_SHELL_PARAMETERS_PROTOCOL parameters_{};
    EFI_SHELL_INTERFACE older_interface_{};
    EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL root_bridge_{};
    std::vector<std::vector<CHAR16>> argument_texts_;
    std::vector<CHAR16*> arguments_;
};

} // namespace emulator
