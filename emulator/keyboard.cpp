#include "keyboard.h"

#include <poll.h>
#include <unistd.h>

namespace emulator {

Keyboard::Keyboard() : terminal_(isatty(STDIN_FILENO) != 0) {
    if (terminal_ && tcgetattr(STDIN_FILENO, &saved_) == 0) {
        termios raw = saved_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
}

Keyboard::~Keyboard() {
    if (terminal_) {
        tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    }
}

std::optional<KeyStroke> Keyboard::next(bool program_waits) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (ended_ || poll(&input, 1, program_waits ? -1 : 1) <= 0) {
        return std::nullopt;
    }
    unsigned char key = 0;
    if (read(STDIN_FILENO, &key, 1) != 1) {
        ended_ = true;
        return std::nullopt;
    }
    return KeyStroke{0, key};
}

} // namespace emulator
