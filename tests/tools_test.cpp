// The built programs, run as a person runs them.
#include "lab.h"

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

/// What a command in a folder prints, and then "= STATUS" unless it is 0. `$owner` takes the right
/// to overlook file permissions from a superuser.
std::string shell(const std::filesystem::path& folder, const std::string& command) {
    const std::string setup =
        "exec </dev/null 2>&1; cd " + folder.string() +
        "; PATH=" QFU_TOOLS ":" QFU_TOOLS "/manual:$PATH; project=" QFU_SOURCE_DIR
        "; source=$project/spilist/chips.toml; lists=$project/tests/chip_lists; owner=; "
        "[ $(id -u) != 0 ] || "
        "owner='setpriv --bounding-set=-dac_override,-dac_read_search'; ";
    FILE* pipe = popen((setup + command).c_str(), "r");
    std::string output;
    for (int c = 0; (c = fgetc(pipe)) != EOF;) {
        output += static_cast<char>(c);
    }
    const int status = WEXITSTATUS(pclose(pipe));
    return status == 0 ? output : output + "= " + std::to_string(status) + "\n";
}

/// True when the text is as expected. "..." stands for any text, over lines too.
bool fits(std::string_view text, std::string_view expected) {
    const std::size_t dots = expected.find("...");
    const std::string_view first = expected.substr(0, dots);
    if (!text.starts_with(first)) {
        return false;
    }
    text.remove_prefix(first.size());
    if (dots == expected.npos) {
        return text.empty();
    }
    for (; !fits(text, expected.substr(dots + 3)); text.remove_prefix(1)) {
        if (text.empty()) {
            return false;
        }
    }
    return true;
}

/// "put FILE" to "end" is a file. "$ COMMAND" runs; what it must print follows.
TEST(Tools, PrintWhatTheirScriptSays) {
    lab::Lab lab;
    std::ifstream script(QFU_SOURCE_DIR "/tests/tools.txt");
    ASSERT_TRUE(script);
    std::string line;
    std::getline(script, line);
    while (script) {
        const std::string start = line;
        std::string text;
        while (std::getline(script, line) && line != "end" && !line.starts_with("$ ") &&
               !line.starts_with("put ")) {
            text += line.starts_with('#') || line.empty() ? "" : line + "\n";
        }
        if (start.starts_with("put ")) {
            lab.write_file(start.substr(4), text);
        } else if (start.starts_with("$ ")) {
            const std::string output = shell(lab.folder(), start.substr(2));
            EXPECT_TRUE(fits(output, text)) << start << "\n" << output;
        }
    }
}

} // namespace
