// Plays sessions from the command line.
#include "guest_player.h"
#include "player.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>

namespace {

using Lines = std::vector<std::string>;

constexpr char kUsage[] =
    "Usage: play SESSION...                       in this process\n"
    "       play --guest PLATFORM SESSION...      in a guest too: x64, clang, edk2 or aarch64\n"
    "       play --update SESSION                 write what came out into the file\n";

void write(const std::filesystem::path& file, const Lines& lines) {
    std::ofstream out(file, std::ios::binary);
    for (const std::string& line : lines) {
        out << line << '\n';
    }
}

void show_difference(const std::string& file, const session::Playback& playback) {
    const lab::ScratchFolder folder;
    write(folder.path() / "expected", playback.expected);
    write(folder.path() / "shown", playback.shown);
    const std::string diff = "diff -u --label '" + file + "' --label 'what came out' '" +
                             folder.path().string() + "'/expected '" + folder.path().string() +
                             "'/shown";
    std::cout << std::flush;
    static_cast<void>(std::system(diff.c_str()));
}

bool play(const std::string& file) {
    const session::Playback playback = session::play(file);
    if (playback.expected != playback.shown) {
        show_difference(file, playback);
        return false;
    }
    return true;
}

void update(const std::string& file) {
    const session::Playback playback = session::play(file);
    if (playback.has_registers) {
        throw session::SessionError(file + ": register accesses are written by hand");
    }
    show_difference(file, playback);
    write(file, playback.shown);
}

} // namespace

int main(int argc, char** argv) try {
    const Lines words(argv + 1, argv + argc);
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
    return std::ranges::count_if(words, [](const std::string& file) { return !play(file); }) == 0
               ? 0
               : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
