#include "qfu/status_text.h"

#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <string>

namespace {

// The file is written from the table of codes, not from the program.
TEST(StatusText, IsWhatTheFileSays) {
    std::ifstream file(QFU_SOURCE_DIR "/tests/status_texts.txt");
    std::map<int, std::string> texts;
    for (int code = 0; file >> code;) {
        file.get(); // the space between them
        std::getline(file, texts[code]);
    }
    EXPECT_EQ(texts.size(), 63U);
    for (int code = 0; code < 256; ++code) {
        const std::string expected = texts.contains(code) ? texts[code] : "Unknown error";
        EXPECT_EQ(qfu_status_string(code), expected) << code;
        EXPECT_EQ(qfu_status_string(code - 256), expected) << "the low eight bits count";
    }
}

} // namespace
