#include "firmware.h"

#include "hardware/hex.h"

#include <array>
#include <chrono>
#include <cstring>
#include <utility>

namespace emulator {
namespace {

/// The firmware whose services are called.
Firmware* active = nullptr;

/// The older shell's environment, down to the break query. The services before it are not served.
struct OlderEnvironment {
    std::array<void*, 12> first_services;
    EFI_GUID extension;
    std::uint32_t major;
    std::uint32_t minor;
    std::array<void*, 5> page_and_key_services;
    BOOLEAN(EFIAPI* get_execution_break)();
};

constexpr EFI_GUID kShell = EFI_SHELL_PROTOCOL_GUID;
constexpr EFI_GUID kShellParameters = EFI_SHELL_PARAMETERS_PROTOCOL_GUID;
constexpr EFI_GUID kOlderInterface = SHELL_INTERFACE_PROTOCOL_GUID;
constexpr EFI_GUID kOlderEnvironment = {
    0x47c7b221, 0xc42a, 0x11d2, {0x8e, 0x57, 0x00, 0xa0, 0xc9, 0x69, 0x72, 0x3b}
};
constexpr EFI_GUID kOlderEnvironmentExtension = {
    0xd2c18636, 0x40e5, 0x4eb5, {0xa3, 0x1b, 0x36, 0x69, 0x5f, 0xd4, 0x2c, 0x87}
};
constexpr EFI_GUID kRootBridge = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_GUID;

bool same(const EFI_GUID& a, const EFI_GUID& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

/// Bytes of one unit of the width; 0 for widths that are no plain unit.
int unit(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH width) {
    switch (width) {
    case EfiPciIoWidthUint8:
        return 1;
    case EfiPciIoWidthUint16:
        return 2;
    case EfiPciIoWidthUint32:
        return 4;
    default:
        return 0;
    }
}

/// The wall clock shows the start of 2026 when virtual time starts.
EFI_TIME wall_clock(std::uint64_t now_ns) {
    using namespace std::chrono;
    const auto now = sys_days(2026y / January / 1) + seconds(now_ns / 1'000'000'000);
    const auto day = floor<days>(now);
    const year_month_day date(day);
    const hh_mm_ss clock(now - day);
    EFI_TIME time{};
    time.Year = static_cast<UINT16>(static_cast<int>(date.year()));
    time.Month = static_cast<UINT8>(static_cast<unsigned>(date.month()));
    time.Day = static_cast<UINT8>(static_cast<unsigned>(date.day()));
    time.Hour = static_cast<UINT8>(clock.hours().count());
    time.Minute = static_cast<UINT8>(clock.minutes().count());
    time.Second = static_cast<UINT8>(clock.seconds().count());
    return time;
}

void store(void* buffer, std::uint32_t value, int width) {
    switch (width) {
    case 1:
        *static_cast<UINT8*>(buffer) = static_cast<UINT8>(value);
        break;
    case 2:
        *static_cast<UINT16*>(buffer) = static_cast<UINT16>(value);
        break;
    default:
        *static_cast<UINT32*>(buffer) = value;
        break;
    }
}

std::uint32_t fetch(const void* buffer, int width) {
    switch (width) {
    case 1:
        return *static_cast<const UINT8*>(buffer);
    case 2:
        return *static_cast<const UINT16*>(buffer);
    default:
        return *static_cast<const UINT32*>(buffer);
    }
}

} // namespace

/// The services as the tables call them.
struct Firmware::Services {
    // Boot services

    static EFI_STATUS EFIAPI allocate_pool(EFI_MEMORY_TYPE type, UINTN size, VOID** buffer) {
        if (type != EfiBootServicesData) {
            active->journal().misuse("AllocatePool of type " + std::to_string(type));
        }
        *buffer = active->faults_.pool.next_call_fails() ? nullptr : active->pool_.allocate(size);
        return *buffer == nullptr ? EFI_OUT_OF_RESOURCES : EFI_SUCCESS;
    }
    static EFI_STATUS EFIAPI free_pool(VOID* buffer) {
        return active->pool_.free(buffer) ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
    }
    static VOID EFIAPI set_mem(VOID* buffer, UINTN size, UINT8 value) {
        std::memset(buffer, value, size);
    }
    static EFI_STATUS EFIAPI stall(UINTN microseconds) {
        active->terminal_.note_activity();
        active->clock_->advance_us(microseconds);
        return EFI_SUCCESS;
    }
    static EFI_STATUS EFIAPI create_event(UINT32 type, EFI_TPL /*tpl*/, EFI_EVENT_NOTIFY notify,
                                          VOID* /*context*/, EFI_EVENT* event) {
        if (type != EVT_TIMER || notify != nullptr) {
            active->journal().misuse("CreateEvent of type " + hex(type, 8));
            return EFI_INVALID_PARAMETER;
        }
        if (active->faults_.create_event.next_call_fails()) {
            return EFI_OUT_OF_RESOURCES;
        }
        *event = active->events_.create();
        return EFI_SUCCESS;
    }
    static EFI_STATUS EFIAPI set_timer(EFI_EVENT event, EFI_TIMER_DELAY type, UINT64 ticks) {
        constexpr std::uint64_t kTickNs = 100;
        if (type != TimerRelative) {
            active->journal().misuse("SetTimer of type " + std::to_string(type));
            return EFI_INVALID_PARAMETER;
        }
        if (active->faults_.set_timer.next_call_fails()) {
            return EFI_DEVICE_ERROR;
        }
        return active->events_.set_timer(static_cast<Events::Event*>(event),
                                         active->clock_->now_ns(), ticks * kTickNs)
                   ? EFI_SUCCESS
                   : EFI_INVALID_PARAMETER;
    }
    static EFI_STATUS EFIAPI wait_for_event(UINTN count, EFI_EVENT* events, UINTN* index) {
        if (active->faults_.wait_for_event.next_call_fails()) {
            return EFI_DEVICE_ERROR;
        }
        std::uint64_t earliest = UINT64_MAX;
        for (UINTN i = 0; i < count; ++i) {
            if (events[i] == &active->key_event_) {
                if (active->terminal_.key_pending()) {
                    *index = i;
                    return EFI_SUCCESS;
                }
                continue;
            }
            const auto* timer = static_cast<Events::Event*>(events[i]);
            if (!active->events_.is_open(timer)) {
                active->journal().misuse("WaitForEvent on an event that is not open");
                return EFI_INVALID_PARAMETER;
            }
            if (timer->due_ns != 0 && timer->due_ns < earliest) {
                earliest = timer->due_ns;
                *index = i;
            }
        }
        if (earliest == UINT64_MAX) {
            active->journal().misuse("WaitForEvent on nothing that will happen");
            return EFI_UNSUPPORTED;
        }
        const std::uint64_t now = active->clock_->now_ns();
        active->clock_->advance_us(earliest > now ? (earliest - now) / 1000 : 0);
        static_cast<Events::Event*>(events[*index])->due_ns = 0;
        return EFI_SUCCESS;
    }
    static EFI_STATUS EFIAPI close_event(EFI_EVENT event) {
        return active->events_.close(static_cast<Events::Event*>(event)) ? EFI_SUCCESS
                                                                         : EFI_INVALID_PARAMETER;
    }
    static EFI_STATUS EFIAPI check_event(EFI_EVENT event) {
        if (event != &active->break_event_) {
            active->journal().misuse("CheckEvent on another event than the execution break");
            return EFI_INVALID_PARAMETER;
        }
        return active->query_break() ? EFI_SUCCESS : EFI_NOT_READY;
    }
    static EFI_STATUS EFIAPI locate_protocol(EFI_GUID* protocol, VOID* /*registration*/,
                                             VOID** interface) {
        static const OlderEnvironment kEnvironment{
            {}, kOlderEnvironmentExtension, 1, 0, {}, &older_break};
        *interface = nullptr;
        if (active->faults_.locate_protocol.next_call_fails()) {
            return EFI_NOT_FOUND;
        }
        if (same(*protocol, kShell) && active->has_shell_protocol()) {
            *interface = &active->shell_protocol_;
        } else if (same(*protocol, kOlderEnvironment) && active->shell_ == Shell::kOlder) {
            *interface = const_cast<OlderEnvironment*>(&kEnvironment);
        } else if (same(*protocol, kRootBridge) && !active->root_bridge_hidden_) {
            *interface = &active->root_bridge_;
        }
        return *interface == nullptr ? EFI_NOT_FOUND : EFI_SUCCESS;
    }
    static EFI_STATUS EFIAPI open_protocol(EFI_HANDLE handle, EFI_GUID* protocol, VOID** interface,
                                           EFI_HANDLE /*agent*/, EFI_HANDLE /*controller*/,
                                           UINT32 attributes) {
        if (handle != &active->image_ || attributes != EFI_OPEN_PROTOCOL_GET_PROTOCOL) {
            active->journal().misuse("OpenProtocol on another handle or for another use");
            return EFI_INVALID_PARAMETER;
        }
        *interface = nullptr;
        if (active->faults_.open_protocol.next_call_fails()) {
            return EFI_UNSUPPORTED;
        }
        if (same(*protocol, kShellParameters) && active->shell_ == Shell::kCurrent) {
            *interface = &active->parameters_;
        } else if (same(*protocol, kOlderInterface) &&
                   (active->shell_ == Shell::kNoParameters || active->shell_ == Shell::kOlder)) {
            *interface = &active->older_interface_;
        }
        return *interface == nullptr ? EFI_UNSUPPORTED : EFI_SUCCESS;
    }
    static BOOLEAN EFIAPI older_break() { return active->query_break() ? 1 : 0; }

    // Console

    static EFI_STATUS EFIAPI output_string(SIMPLE_TEXT_OUTPUT_INTERFACE* /*self*/, CHAR16* text) {
        if (active->faults_.output.next_call_fails()) {
            return EFI_DEVICE_ERROR;
        }
        active->terminal_.print(text);
        return EFI_SUCCESS;
    }
    static EFI_STATUS EFIAPI reset_keys(SIMPLE_INPUT_INTERFACE* /*self*/, BOOLEAN /*verify*/) {
        active->terminal_.discard_early_keys();
        return EFI_SUCCESS;
    }

    static EFI_STATUS EFIAPI set_attribute(SIMPLE_TEXT_OUTPUT_INTERFACE* /*self*/,
                                           UINTN /*attribute*/) {
        return EFI_SUCCESS;
    }
    static EFI_STATUS EFIAPI read_key(SIMPLE_INPUT_INTERFACE* /*self*/, EFI_INPUT_KEY* key) {
        if (active->faults_.read_key.next_call_fails()) {
            return EFI_DEVICE_ERROR;
        }
        const auto stroke = active->terminal_.take_key();
        if (!stroke) {
            return EFI_NOT_READY;
        }
        *key = {stroke->scan_code, stroke->character};
        return EFI_SUCCESS;
    }

    // Runtime services

    static EFI_STATUS EFIAPI get_time(EFI_TIME* time, EFI_TIME_CAPABILITIES* /*capabilities*/) {
        constexpr std::uint64_t kReadUs = 100; // the clock is a slow chip
        active->terminal_.note_clock_read();
        active->clock_->advance_us(kReadUs);
        if (active->faults_.clock.next_call_fails()) {
            return EFI_DEVICE_ERROR;
        }
        *time = wall_clock(active->clock_->now_ns());
        return EFI_SUCCESS;
    }

    /// What happens to the machine shows on its console.
    static EFI_STATUS EFIAPI reset_system(EFI_RESET_TYPE type, EFI_STATUS /*status*/,
                                          UINTN /*size*/, CHAR16* /*data*/) {
        active->terminal_.print(
            widen(type == EfiResetShutdown ? "[power off]\r\n" : "[reset]\r\n").data());
        return EFI_SUCCESS;
    }

    // Shell

    static const CHAR16* EFIAPI get_env(const CHAR16* name) {
        std::string key;
        for (; *name != 0; ++name) {
            key.push_back(static_cast<char>(*name));
        }
        const auto found = active->variables_.find(key);
        return found == active->variables_.end() ? nullptr : found->second.data();
    }
    static EFI_STATUS EFIAPI open_file_list(CHAR16* path, UINT64 mode, EFI_SHELL_FILE_INFO** list) {
        return active->files_.open_list(path, mode, list);
    }
    static EFI_STATUS EFIAPI free_file_list(EFI_SHELL_FILE_INFO** list) {
        return active->files_.free_list(list);
    }
    static EFI_STATUS EFIAPI open_file_by_name(const CHAR16* name, SHELL_FILE_HANDLE* handle,
                                               UINT64 mode) {
        return active->files_.open_by_name(name, mode, handle);
    }
    static EFI_STATUS EFIAPI close_file(SHELL_FILE_HANDLE handle) {
        return active->files_.close(handle);
    }
    static EFI_STATUS EFIAPI delete_file(SHELL_FILE_HANDLE handle) {
        return active->files_.remove(handle);
    }
    static EFI_STATUS EFIAPI read_file(SHELL_FILE_HANDLE handle, UINTN* size, VOID* buffer) {
        return active->files_.read(handle, size, buffer);
    }
    // The shell's interface has the size in and out.
    // NOLINTNEXTLINE(readability-non-const-parameter)
    static EFI_STATUS EFIAPI write_file(SHELL_FILE_HANDLE handle, UINTN* size, VOID* buffer) {
        return active->files_.write(handle, *size, buffer);
    }
    static EFI_STATUS EFIAPI flush_file(SHELL_FILE_HANDLE handle) {
        return active->files_.flush(handle);
    }
    static EFI_STATUS EFIAPI get_position(SHELL_FILE_HANDLE handle, UINT64* position) {
        return active->files_.position(handle, position);
    }
    static EFI_STATUS EFIAPI set_position(SHELL_FILE_HANDLE handle, UINT64 position) {
        return active->files_.set_position(handle, position);
    }
    static EFI_STATUS EFIAPI get_size(SHELL_FILE_HANDLE handle, UINT64* size) {
        return active->files_.size(handle, size);
    }
    static EFI_FILE_INFO* EFIAPI get_info(SHELL_FILE_HANDLE handle) {
        return active->files_.info(handle);
    }

    // Root bridge

    using RootBridge = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL;

    /// What the root bridge says about a memory cycle before it makes it.
    static EFI_STATUS begin_memory_cycle(UINT64 address, UINTN count, int width) {
        if (width == 0 || count != 1) {
            active->journal().misuse("memory cycle of an unusual width or count");
            return EFI_INVALID_PARAMETER;
        }
        if ((address & static_cast<UINT64>(width - 1)) != 0) {
            return EFI_UNSUPPORTED;
        }
        return Machine::in_memory_window(address) ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
    }
    static EFI_STATUS EFIAPI memory_read(RootBridge* /*self*/,
                                         EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH width,
                                         UINT64 address, UINTN count, VOID* buffer) {
        active->terminal_.note_activity();
        const int bytes = unit(width);
        const EFI_STATUS status = begin_memory_cycle(address, count, bytes);
        if (status != EFI_SUCCESS) {
            return status;
        }
        const std::uint32_t value = active->machine_->memory_read(address, bytes);
        if (active->faults_.memory_read.next_call_fails()) {
            return EFI_DEVICE_ERROR;
        }
        store(buffer, value, bytes);
        return EFI_SUCCESS;
    }
    static EFI_STATUS EFIAPI memory_write(RootBridge* /*self*/,
                                          EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH width,
                                          UINT64 address, UINTN count, VOID* buffer) {
        active->terminal_.note_activity();
        const int bytes = unit(width);
        const EFI_STATUS status = begin_memory_cycle(address, count, bytes);
        if (status != EFI_SUCCESS) {
            return status;
        }
        if (active->faults_.memory_write.next_call_fails()) {
            return EFI_DEVICE_ERROR;
        }
        active->machine_->memory_write(address, fetch(buffer, bytes), bytes);
        return EFI_SUCCESS;
    }
    static EFI_STATUS EFIAPI config_read(RootBridge* /*self*/,
                                         EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH width,
                                         UINT64 address, UINTN count, VOID* buffer) {
        const int bytes = unit(width);
        if (bytes == 0 || count != 1) {
            active->journal().misuse("configuration read of an unusual width or count");
            return EFI_INVALID_PARAMETER;
        }
        const auto reg = static_cast<std::uint32_t>(address & 0xFF);
        if (reg % static_cast<std::uint32_t>(bytes) != 0) {
            return EFI_UNSUPPORTED;
        }
        if (active->faults_.config_read.next_call_fails()) {
            return EFI_DEVICE_ERROR;
        }
        const PciAddress function{static_cast<std::uint8_t>(address >> 24),
                                  static_cast<std::uint8_t>(address >> 16),
                                  static_cast<std::uint8_t>(address >> 8)};
        store(buffer, active->machine_->config_read(function, reg, bytes), bytes);
        return EFI_SUCCESS;
    }
};

Firmware::Firmware(Machine& machine, VirtualClock& clock, std::filesystem::path folder)
    : machine_(&machine), clock_(&clock), pool_(machine.journal()), events_(machine.journal()),
      terminal_(machine.journal()),
      files_(std::move(folder), pool_, machine.journal(), faults_.file, faults_.short_read) {
    fill_boot_services();
    fill_shell_protocol();
    fill_root_bridge();
    runtime_.GetTime = Services::get_time;
    runtime_.ResetSystem = Services::reset_system;
    console_out_.OutputString = Services::output_string;
    console_in_.Reset = Services::reset_keys;
    console_out_.SetAttribute = Services::set_attribute;
    console_in_.ReadKeyStroke = Services::read_key;
    console_in_.WaitForKey = &key_event_;
    table_.Hdr.Signature = EFI_SYSTEM_TABLE_SIGNATURE;
    table_.ConOut = &console_out_;
    table_.ConIn = &console_in_;
    table_.BootServices = &boot_;
    table_.RuntimeServices = &runtime_;
}

Firmware::~Firmware() {
    if (active == this) {
        active = nullptr;
    }
}

void Firmware::activate(Shell shell, const std::vector<std::string>& arguments) {
    active = this;
    shell_ = shell;
    argument_texts_.clear();
    arguments_.clear();
    for (const std::string& argument : arguments) {
        argument_texts_.push_back(widen(argument));
    }
    for (auto& text : argument_texts_) {
        arguments_.push_back(text.data());
    }
    parameters_.Argv = arguments_.data();
    parameters_.Argc = arguments_.size();
    older_interface_.Argv = arguments_.data();
    older_interface_.Argc = arguments_.size();
}

Resources Firmware::resources() const {
    return {pool_.bytes_out(), pool_.blocks_out(), events_.out(), files_.lists_out(),
            files_.handles_out()};
}

bool Firmware::query_break() {
    if (faults_.break_query.next_call_fails()) {
        break_pending_ = true;
    }
    // Reading the event takes it back.
    return break_pending_.exchange(false);
}

void Firmware::fill_boot_services() {
    boot_.AllocatePool = Services::allocate_pool;
    boot_.FreePool = Services::free_pool;
    boot_.SetMem = Services::set_mem;
    boot_.Stall = Services::stall;
    boot_.CreateEvent = Services::create_event;
    boot_.SetTimer = Services::set_timer;
    boot_.WaitForEvent = Services::wait_for_event;
    boot_.CloseEvent = Services::close_event;
    boot_.CheckEvent = Services::check_event;
    boot_.LocateProtocol = Services::locate_protocol;
    boot_.OpenProtocol = Services::open_protocol;
}

void Firmware::fill_shell_protocol() {
    shell_protocol_.GetEnv = Services::get_env;
    shell_protocol_.OpenFileList = Services::open_file_list;
    shell_protocol_.FreeFileList = Services::free_file_list;
    shell_protocol_.OpenFileByName = Services::open_file_by_name;
    shell_protocol_.CloseFile = Services::close_file;
    shell_protocol_.DeleteFile = Services::delete_file;
    shell_protocol_.ReadFile = Services::read_file;
    shell_protocol_.WriteFile = Services::write_file;
    shell_protocol_.FlushFile = Services::flush_file;
    shell_protocol_.GetFilePosition = Services::get_position;
    shell_protocol_.SetFilePosition = Services::set_position;
    shell_protocol_.GetFileSize = Services::get_size;
    shell_protocol_.GetFileInfo = Services::get_info;
    shell_protocol_.ExecutionBreak = &break_event_;
    shell_protocol_.MajorVersion = 2;
    shell_protocol_.MinorVersion = 2;
}

void Firmware::fill_root_bridge() {
    root_bridge_.Mem.Read = Services::memory_read;
    root_bridge_.Mem.Write = Services::memory_write;
    root_bridge_.Pci.Read = Services::config_read;
}

} // namespace emulator
