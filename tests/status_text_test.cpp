#include "status_text.h"

#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <string>

namespace {

TEST(StatusText, IsWhatTheFileSays) {
    std::ifstream file(QFU_SOURCE_DIR "/tests/status_texts.txt");
    std::map<int, std::string> texts;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && std::isdigit(static_cast<unsigned char>(line[0])) != 0) {
            texts[std::stoi(line)] = line.substr(line.find(' ') + 1);
        }
    }
    EXPECT_EQ(texts.size(), 63U);
    for (int code = 0; code < 256; ++code) {
        const std::string expected = texts.contains(code) ? texts[code] : "Unknown error";
        EXPECT_EQ(qfu_status_string(code), expected) << code;
        EXPECT_EQ(qfu_status_string(code - 256), expected) << "the low eight bits count";
    }
}

} // namespace
