// Plays sessions from the command line.
#include "guest_player.h"
#include "player.h"

#include <algorithm>
#include <iostream>

namespace {

constexpr char kUsage[] =
    "Usage: play SESSION...                       in this process\n"
    "       play --guest PLATFORM SESSION...      in a guest too: x64, clang, edk2 or aarch64\n"
    "       play --update SESSION                 write what came out into the file\n";

void update(const std::string& file) {
    const session::Playback playback = session::play(file);
    if (std::ranges::count(playback.expected, "registers:") != 0) {
        throw session::SessionError(file + ": register accesses are written by hand");
    }
    session::expect_same(file, playback.expected, playback.shown);
    session::write_lines(file, playback.shown);
}

} // namespace

int main(int argc, char** argv) try {
    const session::Lines words(argv + 1, argv + argc);
    if (words.size() == 2 && words[0] == "--update") {
        update(words[1]);
        return 0;
    }
    if (words.size() > 2 && words[0] == "--guest") {
        return session::play_in_guests(words[1], {words.begin() + 2, words.end()}) ? 0 : 1;
    }
    if (words.empty() || words[0].starts_with('-')) {
        std::cerr << kUsage;
        return 2;
    }
    bool good = true;
    for (const std::string& file : words) {
        const session::Playback playback = session::play(file);
        good = session::expect_same(file, playback.expected, playback.shown) && good;
    }
    return good ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
