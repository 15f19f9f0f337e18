#include "console.h"

#include "lab.h"
#include "platform/system.h"

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

TEST(Format, NumbersHaveWidthPrecisionSignAndPadding) {
    EXPECT_EQ(format("%d|%i|%u", -1, 7, -1), "-1|7|4294967295");
    EXPECT_EQ(format("%02x|%02d|%5.8lx", 5, 7, 0x1234), "05|07|00001234");
    EXPECT_EQ(format("[%5d][%-5d][%05d]", -42, -42, -42), "[  -42][-42  ][-0042]");
    EXPECT_EQ(format("[%-05d][%+d][% d][%+u]", 3, 3, 3, 3), "[3    ][+3][ 3][3]");
    EXPECT_EQ(format("[%8.3d][%08.3d][%.0d]", 5, 5, 0), "[     005][00000005][0]");
    EXPECT_EQ(format("%x|%X|%o|%#x|%#X|%#o", 0xBEEF, 0xBEEF, 8, 0xA, 0xA, 8),
              "beef|BEEF|10|0xa|0XA|010");
    EXPECT_EQ(format("[%#06x][%#6x][%-#6x]", 0xA, 0xA, 0xA), "[0x000a][   0xa][0xa   ]");
    EXPECT_EQ(format("%d", INT32_MIN), "-2147483648");
}

TEST(Format, IntegersAreThirtyTwoBitsWideWhateverTheirQualifier) {
    EXPECT_EQ(format("%x", 0x8000000000000003ULL), "3");
    EXPECT_EQ(format("%lx|%qd", 0x100000002ULL, 0x100000002ULL), "2|2");
    EXPECT_EQ(format("%hd|%hu|%hx", 0x1FFFF, 0x1FFFF, 0x12345), "-1|65535|2345");
}

TEST(Format, TextsAndCharactersArePaddedAndCut) {
    EXPECT_EQ(format("%10.10s|%10.10s", "-phytest", "abcdefghijkl"), "  -phytest|abcdefghij");
    EXPECT_EQ(format("[%-6s][%.2s][%.0s]", "abc", "abc", "abc"), "[abc   ][ab][]");
    EXPECT_EQ(format("%s", static_cast<const char*>(nullptr)), "<NULL>");
    EXPECT_EQ(format("[%3c][%-3c]", 'A', 'A'), "[  A][A  ]");
}

TEST(Format, WidthAndPrecisionComeFromArguments) {
    EXPECT_EQ(format("[%*d][%*d][%.*s][%.*s]", 4, 1, -4, 1, 2, "abc", -1, "abc"),
              "[   1][1   ][ab][]");
}

TEST(Format, PointersAreSixteenColumnsWithoutAWidth) {
    EXPECT_EQ(format("%p|%4p", 0xABCD, 0xABCD), "000000000000abcd|abcd");
}

TEST(Format, CountsTheCharactersWrittenSoFar) {
    std::uint32_t count = 0;
    EXPECT_EQ(format("abc%nd%%", &count), "abcd%");
    EXPECT_EQ(count, 3U);
}

TEST(Format, KeepsWhatIsNoConversion) {
    EXPECT_EQ(format("%y|%5y|%lld|100%"), "%y|%y|%ld|100%");
    EXPECT_EQ(format("%-08.3"), "%");
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

TEST(Format, TakesNothingFromArgumentsThatAreNotThereOrDoNotFit) {
    EXPECT_EQ(format("%d %s %c|%n", 1), std::string("1 <NULL> \0|", 11));
    EXPECT_EQ(format("%s %d", 5, "text"), "<NULL> 0");
}

TEST(Print, AddsACarriageReturnBeforeEveryLineFeed) {
    Lab lab;
    lab.attach();
    EXPECT_EQ(qfu_print("A\nB\xE4"), 4);
    EXPECT_EQ(lab.printed(), "A\r\nB\xE4");
}

TEST(Print, HandsAtMost320CharactersToTheConsoleAtOnce) {
    Lab lab;
    lab.attach();
    const std::string long_text(400, 'a');
    EXPECT_EQ(qfu_print("%s", long_text.c_str()), 400);
    EXPECT_EQ(lab.printed(), std::string(320, 'a'));
}

TEST(Print, CutsTextsThatAreLongerThanItsBuffers) {
    Lab lab;
    lab.attach();
    qfu_page_mode = true;
    const std::string long_text(2000, 'a');
    EXPECT_EQ(qfu_print("%s", long_text.c_str()), 1023);
    EXPECT_EQ(lab.printed().size(), 1023U);
    const std::string lines(700, '\n');
    lab.firmware().terminal().press(std::string(100, ' '));
    EXPECT_EQ(qfu_print("%s", lines.c_str()), 700);
    // 1023 places hold 511 pairs of carriage return and line feed and one more carriage return.
    EXPECT_EQ(lab.printed().size(), 1023U);
}

TEST(Print, NamesTheBufferThatThereIsNoMemoryFor) {
    const char* messages[] = {"*str_buffer==> resource is not enough.\r\n",
                              "*unicode_str_buffer==> resource is not enough.\r\n",
                              "*tmp_buffer==> resource is not enough.\r\n"};
    for (std::uint64_t nth = 1; nth <= 3; ++nth) {
        Lab lab;
        lab.attach();
        lab.faults().pool.fail(nth);
        EXPECT_EQ(qfu_print("lost"), -1);
        EXPECT_EQ(lab.printed(), messages[nth - 1]);
    }
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
    EXPECT_EQ(p.lab.firmware().terminal().prints(), 3U);
    qfu_print("%s",
              line.c_str()); // the 24th piece is cut at 80 and gets its line feed after the key
    ASSERT_EQ(p.pauses.size(), 1U);
    EXPECT_EQ(p.pauses[0], std::string(280, 'x'));
    EXPECT_EQ(p.lab.printed(), "\n" + std::string(120, 'x'));
    EXPECT_EQ(qfu_page_lines, 1U);
}

TEST(Paging, CountsTheCarriageReturnAmongTheEighty) {
    Paging p;
    const std::string line(79, 'x');
    qfu_print("%s\n", line.c_str());
    EXPECT_EQ(qfu_page_lines, 2U);
    EXPECT_EQ(p.lab.printed(), line + "\r\n");
}

TEST(ReadKey, GivesUpAfterElevenMillisecondsWhenItNeedNotWait) {
    Lab lab;
    lab.attach();
    QFU_KEY key{};
    EXPECT_FALSE(qfu_read_key(false, key));
    EXPECT_EQ(lab.clock().now_ns(), 11'000'000U);
    lab.firmware().terminal().press("k");
    EXPECT_TRUE(qfu_read_key(false, key));
    EXPECT_EQ(key.character, 'k');
    EXPECT_EQ(lab.clock().now_ns(), 11'000'000U);
}

TEST(ReadKey, WaitsUntilAKeyComesAndOutlivesMissingEvents) {
    Lab lab;
    lab.attach();
    lab.faults().create_event.fail(1, 30);
    int asked = 0;
    lab.firmware().terminal().on_key_needed([&](bool) -> std::optional<emulator::KeyStroke> {
        return ++asked < 40 ? std::nullopt : std::optional(emulator::KeyStroke{1, 0});
    });
    QFU_KEY key{};
    EXPECT_TRUE(qfu_read_key(true, key));
    EXPECT_EQ(key.scan_code, 1);
    EXPECT_EQ(key.character, 0);
}

TEST(HexDump, ShowsBytesAndCharactersAndPadsTheLastRow) {
    Lab lab;
    lab.attach();
    lab::Bytes bytes;
    for (int i = 0; i < 20; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(0x41 + i));
    }
    bytes[0] = 0x13;
    bytes[1] = 0x80;
    bytes[2] = 0x14;
    bytes[3] = 0x7F;
    EXPECT_EQ(qfu_hex_dump(bytes), 0);
    EXPECT_EQ(lab.printed(),
              "              00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 0123456789ABCDEF\r\n"
              "0x00000000    13 80 14 7F 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 ..\x14\x7F"
              "EFGHIJKLMNOP\r\n"
              "0x00000010    51 52 53 54                                     QRST\r\n");
    qfu_hex_dump({});
    EXPECT_EQ(lab.printed(),
              "              00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 0123456789ABCDEF\r\n");
}

TEST(PlatformPrint, KnowsNumbersTextsAndStatusNames) {
    Lab lab;
    lab.attach();
    const CHAR16 name[] = {'a', '.', 'b', 0};
    platform::print("%d %s: %r, %r.\n",
                    {-12, name, EFI_ACCESS_DENIED, EFI_STATUS{0x80000000000000FF}});
    EXPECT_EQ(lab.printed(), "-12 a.b: Access Denied, 80000000000000FF.\r\n");
    platform::print("line\r\n", {});
    EXPECT_EQ(lab.printed(), "line\r\n");
}

} // namespace
