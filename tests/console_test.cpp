#include "qfu/console.h"

#include "lab.h"
#include "qfu/platform/system.h"

#include <cstdio>
#include <gtest/gtest.h>

namespace {

using lab::Lab;

template <class... Arguments>
std::string format(const char* text, const Arguments&... arguments) {
    std::array<char, 64> buffer{};
    const std::array<QFU_FORMAT_ARGUMENT, sizeof...(Arguments)> list{
        QFU_FORMAT_ARGUMENT(arguments)...};
    const std::size_t length = qfu_format(buffer, text, list);
    EXPECT_EQ(buffer[length], '\0');
    return {buffer.data(), length};
}

/// Compares a conversion with that of the platform.
template <class... Arguments>
void expect_usual(const std::string& text, Arguments... arguments) {
    std::array<char, 64> buffer{};
    std::snprintf(buffer.data(), buffer.size(), text.c_str(), arguments...);
    EXPECT_EQ(format(text.c_str(), arguments...), buffer.data()) << text;
}

TEST(Format, GivesWhatThePlatformGives) {
    const std::string signs[] = {"", "+", " ", "+ "};
    for (const std::string start : {"%", "%-", "%0", "%-0"}) {
        for (const std::string width : {"", "1", "12"}) {
            // Zero padding beside a precision is the platform's way.
            for (const std::string precision : {"", ".1", ".5"}) {
                if (start == "%0" && !precision.empty()) {
                    continue;
                }
                for (const std::string letter : {"d", "i", "u", "o", "x", "X"}) {
                    for (const std::string& sign : signs) {
                        for (const int value : {0, 1, -255, INT32_MAX, INT32_MIN}) {
                            expect_usual(start + sign + width + precision + letter, value);
                        }
                    }
                }
                expect_usual(start + "#" + width + precision + "x", 0x1A);
                expect_usual(start + "#" + width + precision + "X", -1);
            }
        }
    }
    for (const std::string conversion : {"%s", "%7s", "%-7s|", "%.2s", "%-7.2s|", "%.0s", "%1s"}) {
        expect_usual(conversion, "text");
    }
    expect_usual("%c%5c%-5c|%%", 'a', 'b', 'c');
    expect_usual("%*d|%-*.*x|%.*u", 5, 1, 6, 3, 0xA, -1, 7U);
    expect_usual("%*d|", -5, 1);
}

TEST(Format, HasWaysOfItsOwn) {
    EXPECT_EQ(format("[%08.3d][%.0d]|%#o", 5, 0, 8), "[00000005][0]|010");
    // Integers are 32 bits wide, or 16.
    EXPECT_EQ(format("%5.8lx|%x|%qd", 0x1234, 0x8000000000000003ULL, 0x100000002ULL),
              "00001234|3|2");
    EXPECT_EQ(format("%hd|%hu|%hx", 0x1FFFF, 0x1FFFF, 0x12345), "-1|65535|2345");
    EXPECT_EQ(format("[%+u]|%p|%4p", 3, 0xABCD, 0xABCD), "[3]|000000000000abcd|abcd");
    EXPECT_EQ(format("[%.*s]", -1, "abc"), "[]");
    std::uint32_t count = 0;
    EXPECT_EQ(format("abc%nd%%", &count), "abcd%");
    EXPECT_EQ(count, 3U);
}

TEST(Format, KeepsWhatIsNoConversionAndTakesNoArgumentThatIsMissingOrDoesNotFit) {
    EXPECT_EQ(format("%y|%5y|%lld|100%"), "%y|%y|%ld|100%");
    EXPECT_EQ(format("%-08.3"), "%");
    EXPECT_EQ(format("%d %s %c|%n", 1), std::string("1 <NULL> \0|", 11));
    EXPECT_EQ(format("%s %d", 5, "text"), "<NULL> 0");
}

TEST(Format, CutsAtTheBuffersEnd) {
    EXPECT_EQ(format("%100d", 1), std::string(63, ' '));
    EXPECT_EQ(format("%-2147483647d|%s", 1, "x"), "1" + std::string(62, ' '));
    EXPECT_EQ(format("%*d", INT32_MIN, 1), "1" + std::string(62, ' '));
    EXPECT_EQ(format("%.999999999999d", 1), std::string(63, '0'));
    std::array<char, 1> one{'x'};
    EXPECT_EQ(qfu_format(one, "abc", {}), 0U);
    EXPECT_EQ(one[0], '\0');
    EXPECT_EQ(qfu_format({}, "abc", {}), 0U);
}

struct Console : testing::Test {
    Console() { lab.attach(); }
    Lab lab;
};

TEST_F(Console, PrintReturnsTheLengthWithoutCarriageReturnsAndCutsWhatIsLongerThanItsBuffers) {
    EXPECT_EQ(qfu_print("A\nB\xE4"), 4);
    EXPECT_EQ(lab.printed(), "A\r\nB\xE4");
    qfu_page_mode = true;
    EXPECT_EQ(qfu_print("%s", std::string(2000, 'a').c_str()), 1023);
    EXPECT_EQ(lab.printed().size(), 1023U);
    lab.firmware().terminal().press(std::string(100, ' '));
    EXPECT_EQ(qfu_print("%s", std::string(700, '\n').c_str()), 700);
    // 1023 places hold 511 pairs of carriage return and line feed and one more carriage return.
    EXPECT_EQ(lab.printed().size(), 1023U);
}

TEST_F(Console, DumpShowsCharactersFrom14To7F) {
    EXPECT_EQ(qfu_hex_dump(lab::Bytes{0x13, 0x80, 0x14, 0x7F}), 0);
    EXPECT_TRUE(lab.printed().ends_with(" 13 80 14 7F" + std::string(37, ' ') + "..\x14\x7F\r\n"));
}

TEST_F(Console, PlatformPrintKnowsNumbersTextsAndStatusNames) {
    const CHAR16 name[] = {'a', '.', 'b', 0};
    platform::print("%d %s: %r, %r.\n",
                    {-12, name, EFI_ACCESS_DENIED, EFI_STATUS{0x80000000000000FF}});
    EXPECT_EQ(lab.printed(), "-12 a.b: Access Denied, 80000000000000FF.\r\n");
    platform::print("line\r\n", {});
    EXPECT_EQ(lab.printed(), "line\r\n");
}

/// A page of text as it is handed over: what came before the key and what came after.
struct Paging {
    Lab lab;

    Paging() {
        lab.attach();
        qfu_page_mode = true;
        lab.firmware().terminal().on_key_needed([this](bool) -> std::optional<emulator::KeyStroke> {
            // The user takes longer than one poll without waiting.
            if (++asked % 40 != 0) {
                return std::nullopt;
            }
            pauses.push_back(lab.printed());
            return emulator::KeyStroke{0, ' '};
        });
    }
    std::vector<std::string> pauses; ///< what was printed up to each pause
    int asked = 0;                   ///< for a key
};

TEST(Paging, PausesBeforeTheLineFeedOfEveryTwentyFourthLine) {
    Paging p;
    for (int line = 0; line < 50; ++line) {
        qfu_print("%d\n", line);
    }
    ASSERT_EQ(p.pauses.size(), 2U);
    EXPECT_TRUE(p.pauses[0].ends_with("22\r\n23\r"));
    EXPECT_EQ(p.pauses[1].substr(0, 5), "\n24\r\n");
    EXPECT_TRUE(p.pauses[1].ends_with("46\r\n47\r"));
    EXPECT_EQ(p.lab.printed(), "\n48\r\n49\r\n");
}

TEST(Paging, CutsLongLinesIntoPiecesOfEightyAndCountsEach) {
    Paging p;
    qfu_page_lines = 21;
    const std::string line(200, 'x');
    qfu_print("%s", line.c_str()); // pieces 22 and 23, and 40 characters that are not counted
    EXPECT_EQ(qfu_page_lines, 23U);
    EXPECT_EQ(p.lab.firmware().terminal().print_count(), 3U);
    qfu_print("%s", line.c_str()); // a piece that is cut at 80 has its line feed after the key
    ASSERT_EQ(p.pauses.size(), 1U);
    EXPECT_EQ(p.pauses[0], std::string(280, 'x'));
    EXPECT_EQ(p.lab.printed(), "\n" + std::string(120, 'x'));
    EXPECT_EQ(qfu_page_lines, 1U);
    qfu_print("%s\n", line.substr(0, 79).c_str()); // the carriage return is the 80th
    EXPECT_EQ(qfu_page_lines, 3U);
}

} // namespace
