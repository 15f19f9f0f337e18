// File calls that no command makes. Sessions have those that one makes.
#include "qfu/file_io.h"

#include "lab.h"

#include <gtest/gtest.h>

namespace {

using lab::Lab;

std::span<const std::uint8_t> bytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

struct Files : testing::Test {
    Files() { lab.attach(); }
    Lab lab;
};

TEST_F(Files, ReadsTellWhatTheyGotAndLeaveTheRestOfTheBuffer) {
    lab.write_file("\xC4.txt", "hello");
    QFU_FILE file = qfu_fopen("\xC4.txt", "r");
    std::array<std::uint8_t, 4> buffer{};
    std::size_t got = 0;
    EXPECT_EQ(qfu_fread(file, buffer, got), EFI_SUCCESS);
    EXPECT_EQ(got, 4U);
    EXPECT_EQ(qfu_fseek(file, QFU_SEEK::CURRENT), 0);
    buffer.fill('-');
    EXPECT_EQ(qfu_fread(file, buffer, got), EFI_SUCCESS);
    EXPECT_EQ(got, 1U);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "o---");
}

TEST_F(Files, EveryWriteIsFlushedAndModeAKeepsWhatIsThere) {
    lab.write_file("a.txt", "hello");
    const std::uint64_t flushes = lab.firmware().files().flushes();
    QFU_FILE file = qfu_fopen("a.txt", "a");
    EXPECT_EQ(qfu_fwrite(file, bytes("J")), EFI_SUCCESS);
    EXPECT_EQ(qfu_fwrite(file, {}), EFI_ABORTED);
    EXPECT_EQ(qfu_fprintf(file, "%c\n", 'j'), 2);
    EXPECT_EQ(lab.firmware().files().flushes(), flushes + 2);
    EXPECT_EQ(lab.read_file("a.txt"), (lab::Bytes{'J', 'j', '\r', '\n', 'o'}));
    EXPECT_EQ(qfu_fprintf(file, "%s", std::string(1100, '\n').c_str()), 1023);
    EXPECT_EQ(lab.read_file("a.txt").size(), 4 + 1024U) << "text is cut at its buffers";
}

TEST_F(Files, OtherModesAreRefused) {
    for (const std::string mode : {"rb", "W", ""}) {
        EXPECT_FALSE(qfu_fopen("a.txt", mode.c_str()));
        EXPECT_EQ(lab.printed(), "Error 1587=>No Supported this mode(" + mode + ")\r\n");
    }
}

TEST_F(Files, NoFileIsHarmless) {
    QFU_FILE none;
    EXPECT_EQ(qfu_fseek(none, QFU_SEEK::END), 0);
    EXPECT_EQ(qfu_fsize(none), 0U);
    EXPECT_EQ(qfu_fprintf(none, "%d\n", 12), 3);
    EXPECT_EQ(qfu_fclose(none), EFI_SUCCESS);
    EXPECT_EQ(lab.printed(), "");
}

TEST_F(Files, SizesAreCutTo32Bits) {
    lab.write_file("huge.bin", "");
    std::filesystem::resize_file(lab.folder() / "huge.bin", 5ULL << 30);
    EXPECT_EQ(qfu_fsize(qfu_fopen("huge.bin", "r")), 1U << 30);
}

} // namespace
