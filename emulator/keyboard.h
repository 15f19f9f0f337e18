// Keys from the standard input of the emulator.
#pragma once

#include "uefi/terminal.h"

#include <optional>
#include <termios.h>

namespace emulator {

/// Reads keys one by one. A terminal gives each key as it is pressed, for as long as this lives.
class Keyboard {
  public:
    Keyboard();
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;
    ~Keyboard();

    /// The next key, if there is one. It is waited for when `program_waits`; else for a
    /// millisecond, so that a program that only looks for keys does so at the pace of a person.
    std::optional<KeyStroke> next(bool program_waits);

    /// True when standard input is at its end.
    bool ended() const { return ended_; }

  private:
    bool terminal_;
    bool ended_ = false;
    termios saved_{};
};

} // namespace emulator
