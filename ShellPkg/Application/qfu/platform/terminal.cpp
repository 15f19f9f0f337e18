#include "terminal.h"

#include "system.h"

#include <array>
#include <cstddef>
#include <string_view>

namespace platform {
namespace {

/// Status names by the number in a status's low bits; holes of the numbering are empty.
constexpr std::array<std::string_view, 36> ERROR_NAMES = {
    "Success",
    "Load Error",
    "Invalid Parameter",
    "Unsupported",
    "Bad Buffer Size",
    "Buffer Too Small",
    "Not Ready",
    "Device Error",
    "Write Protected",
    "Out of Resources",
    "Volume Corrupt",
    "Volume Full",
    "No Media",
    "Media changed",
    "Not Found",
    "Access Denied",
    "No Response",
    "No mapping",
    "Time out",
    "Not started",
    "Already started",
    "Aborted",
    "ICMP Error",
    "TFTP Error",
    "Protocol Error",
    "Incompatible Version",
    "Security Violation",
    "CRC Error",
    "End of Media",
    "",
    "",
    "End of File",
    "Invalid Language",
    "Compromised Data",
    "IP Address Conflict",
    "HTTP Error",
};

/// One call's text on its way to the console.
class Line {
  public:
    void put(CHAR16 c) {
        if (length_ < PRINT_LIMIT) {
            text_[length_++] = c;
        }
    }
    void put(std::string_view text) {
        for (const char c : text) {
            put(static_cast<CHAR16>(static_cast<unsigned char>(c)));
        }
    }
    void put(const CHAR16* text) {
        while (text != nullptr && *text != 0 && length_ < PRINT_LIMIT) {
            put(*text++);
        }
    }
    void put_number(std::int32_t number) {
        std::array<char, 11> digits{};
        std::size_t at = digits.size();
        const bool negative = number < 0;
        auto rest = static_cast<std::uint32_t>(number);
        rest = negative ? 0 - rest : rest;
        do {
            digits[--at] = static_cast<char>('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        if (negative) {
            digits[--at] = '-';
        }
        put(std::string_view(&digits[at], digits.size() - at));
    }
    void put_status(EFI_STATUS status) {
        const std::uint64_t code = status & ~EFI_ERROR_MASK;
        const bool named = (status == EFI_SUCCESS || EFI_ERROR(status)) &&
                           code < ERROR_NAMES.size() && !ERROR_NAMES[code].empty();
        if (named) {
            put(ERROR_NAMES[code]);
            return;
        }
        for (int shift = 60; shift >= 0; shift -= 4) {
            put(static_cast<CHAR16>("0123456789ABCDEF"[(status >> shift) & 0xF]));
        }
    }
    void hand_over() {
        text_[length_] = 0;
        print(text_.data());
    }

  private:
    std::array<CHAR16, PRINT_LIMIT + 1> text_;
    std::size_t length_ = 0;
};

/// Closes its timer event on every way out of a wait.
class TimerEvent {
  public:
    /// @param ticks  units of 100 ns until the event fires, once
    explicit TimerEvent(std::uint64_t ticks) {
        EFI_BOOT_SERVICES* boot = system().boot;
        if (boot->CreateEvent(EVT_TIMER, TPL_APPLICATION, nullptr, nullptr, &event_) !=
            EFI_SUCCESS) {
            event_ = nullptr;
            return;
        }
        armed_ = boot->SetTimer(event_, TimerRelative, ticks) == EFI_SUCCESS;
    }
    TimerEvent(const TimerEvent&) = delete;
    TimerEvent& operator=(const TimerEvent&) = delete;
    ~TimerEvent() {
        if (event_ != nullptr) {
            system().boot->CloseEvent(event_);
        }
    }
    bool armed() const { return armed_; }
    EFI_EVENT event() const { return event_; }

  private:
    EFI_EVENT event_ = nullptr;
    bool armed_ = false;
};

} // namespace

void print(const char* message, std::initializer_list<PrintArgument> arguments) {
    Line line;
    const PrintArgument* next = arguments.begin();
    char before = 0;
    for (const char* p = message; *p != 0; before = *p++) {
        if (*p == '%' && p[1] != 0 && next != arguments.end()) {
            ++p;
            switch (*p) {
            case 'd':
                line.put_number(next->number());
                break;
            case 'r':
                line.put_status(next->status());
                break;
            default:
                line.put(next->text());
                break;
            }
            ++next;
            continue;
        }
        if (*p == '\n' && before != '\r') {
            line.put(static_cast<CHAR16>('\r'));
        }
        line.put(static_cast<CHAR16>(static_cast<unsigned char>(*p)));
    }
    line.hand_over();
}

void set_color(Color color) {
    SIMPLE_TEXT_OUTPUT_INTERFACE* console = system().table->ConOut;
    console->SetAttribute(console, static_cast<UINTN>(color));
}

void print(const CHAR16* text) {
    if (*text != 0) {
        SIMPLE_TEXT_OUTPUT_INTERFACE* console = system().table->ConOut;
        console->OutputString(console, const_cast<CHAR16*>(text));
    }
}

KeyWait wait_for_key_1ms() {
    constexpr std::uint64_t MILLISECOND = 10'000;
    const TimerEvent timer(MILLISECOND);
    if (!timer.armed()) {
        return KeyWait::ERROR;
    }
    EFI_EVENT events[] = {system().table->ConIn->WaitForKey, timer.event()};
    UINTN ended_by = 0;
    if (system().boot->WaitForEvent(2, events, &ended_by) != EFI_SUCCESS) {
        return KeyWait::ERROR;
    }
    return ended_by == 0 ? KeyWait::KEY : KeyWait::TIMER;
}

bool take_key(Key& key) {
    SIMPLE_INPUT_INTERFACE* console = system().table->ConIn;
    EFI_INPUT_KEY stroke{};
    if (console->ReadKeyStroke(console, &stroke) != EFI_SUCCESS) {
        return false;
    }
    key = {stroke.ScanCode, stroke.UnicodeChar};
    return true;
}

void discard_keys() {
    SIMPLE_INPUT_INTERFACE* console = system().table->ConIn;
    console->Reset(console, 0);
}

} // namespace platform
