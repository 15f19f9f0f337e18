// The firmware's and the machine files' own promises, where the program's tests do not show them.
#include "lab.h"
#include "machine/machine_file.h"
#include "support/input_error.h"

#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

namespace {

using namespace emulator;
using lab::Lab;

/// The complaint about a machine file with these lines.
std::string complaint(const std::string& text) {
    Lab lab;
    lab.write_file("machine.toml", text);
    try {
        load_machine_file(lab.folder() / "machine.toml");
    } catch (const support::InputError& error) {
        const std::string message = error.what();
        return message.substr(message.find("machine.toml"));
    }
    return "none";
}

TEST(MachineFile, NamesTheLineTheMistakeAndWhatIsAllowed) {
    std::ifstream mistakes(QFU_SOURCE_DIR "/tests/machine_mistakes.txt");
    std::map<std::string, std::string> names;
    std::string text;
    int count = 0;
    for (std::string line; std::getline(mistakes, line);) {
        if (line.starts_with("=> ")) {
            EXPECT_EQ(complaint(text), "machine.toml:" + line.substr(3)) << text;
            ++count;
            continue;
        }
        const std::size_t is = line.find(" is ");
        std::istringstream words(is == line.npos ? line : line.substr(is + 4));
        text.clear();
        for (std::string word; words >> word;) {
            text += word == ";" ? "\n" : names.contains(word) ? names[word] : word + " ";
        }
        if (is != line.npos) {
            names[line.substr(0, is)] = text;
        }
    }
    EXPECT_GT(count, 20);
}

TEST(Pool, NotesWhatIsFreedTwice) {
    Lab lab;
    emulator::MemoryPool& pool = lab.firmware().pool();
    void* memory = pool.allocate(10);
    EXPECT_EQ(static_cast<std::uint8_t*>(memory)[9], 0xAF) << "never zero by chance";
    EXPECT_TRUE(pool.free(memory));
    EXPECT_FALSE(pool.free(memory)); // NOLINT(clang-analyzer-unix.Malloc)
    EXPECT_EQ(lab.take_misuses().size(), 1U);
}

} // namespace
