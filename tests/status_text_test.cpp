#include "status_text.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string text(int code) {
    return qfu_status_string(code);
}

TEST(StatusText, TakesTheLowEightBitsOfACode) {
    EXPECT_EQ(text(0), "No error");
    EXPECT_EQ(text(1), "Failed");
    EXPECT_EQ(text(256), "No error");
    EXPECT_EQ(text(0x114), "Link time out");
    EXPECT_EQ(text(-92), "IoControl buffer size is too big.");
}

TEST(StatusText, KeepsItsWordingLetterByLetter) {
    EXPECT_EQ(text(54), "Specified physical disk  is a spare drive");
    EXPECT_EQ(text(81), "Another array is currently doing migration. Only one migration is allowed "
                        "at any time.");
    EXPECT_EQ(text(160), "This command is not support on this produce");
}

TEST(StatusText, DoesNotKnowTheHolesOfItsNumbering) {
    const auto is_hole = [](int code) {
        return code == 2 || code == 3 || (code >= 21 && code <= 50) || code == 62 ||
               (code >= 84 && code <= 150) || code == 157 || code == 163 || code >= 165;
    };
    for (int code = 0; code < 256; ++code) {
        EXPECT_EQ(text(code) == "Unknown error", is_hole(code)) << code;
    }
}

} // namespace
