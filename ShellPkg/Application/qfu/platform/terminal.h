// The console: text out, keys in.
#pragma once

#include "efi.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace platform {

/// One argument of `print`: a number for %d, a UCS-2 text for %s, or a status for %r.
class PrintArgument {
  public:
    constexpr PrintArgument(std::int32_t number) : number_(number) {}
    constexpr PrintArgument(const CHAR16* text) : text_(text) {}
    constexpr PrintArgument(EFI_STATUS status) : status_(status) {}

    constexpr std::int32_t number() const { return number_; }
    constexpr const CHAR16* text() const { return text_; }
    constexpr EFI_STATUS status() const { return status_; }

  private:
    std::int32_t number_ = 0;
    const CHAR16* text_ = nullptr;
    EFI_STATUS status_ = EFI_SUCCESS;
};

/// Characters that one call of `print` hands to the console at most; the rest is cut.
inline constexpr std::size_t PRINT_LIMIT = 320;

/// Prints a message through the console's OutputString in one call. The message knows %d, %s and %r
/// (a status by name), and each of its line feeds that has no carriage return before it gets one;
/// the text of a %s is handed over as it is.
void print(const char* message, std::initializer_list<PrintArgument> arguments = {});

/// Colours of text on black, by the firmware's numbers.
enum class Color : std::uint8_t { PLAIN = 7, GREEN = 10, RED = 12 };

/// Prints in a colour from now on.
void set_color(Color color);

/// Hands a text over to the console as it is. An empty one is not handed over: a redirected console
/// would write whatever is in its buffer.
void print(const CHAR16* text);

/// A key stroke: a scan code for keys without a character, and the character (0 for such keys).
struct Key {
    std::uint16_t scan_code;
    std::uint16_t character;
};

/// What ended a wait for a key.
enum class KeyWait : std::uint8_t { TIMER, KEY, ERROR };

/// Waits until a key is pending, a millisecond has passed or the wait fails.
KeyWait wait_for_key_1ms();

/// Takes a pending key stroke. @returns false when there is none
bool take_key(Key& key);

/// Forgets the keys that were typed before now.
void discard_keys();

} // namespace platform
