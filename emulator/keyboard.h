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

    /// The next key, if there is one. At a terminal it is waited for when `program_waits`.
    std::optional<KeyStroke> next(bool program_waits);

  private:
    bool terminal_;
    bool ended_ = false;
    termios saved_{};
};

} // namespace emulator
