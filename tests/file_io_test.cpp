#include "file_io.h"

#include "lab.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using lab::Lab;

std::span<const std::uint8_t> bytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

struct Files : testing::Test {
    Files() { lab.attach(); }
    Lab lab;
};

TEST_F(Files, ReadsAnExistingFileFromItsStart) {
    lab.write_file("\xC4.txt", "hello");
    chmod((lab.folder() / "\xC4.txt").c_str(), 0444);
    QFU_FILE file = qfu_fopen("\xC4.txt", "r");
    ASSERT_TRUE(file);
    EXPECT_EQ(qfu_fsize(file), 5U);
    std::array<std::uint8_t, 4> buffer{};
    std::size_t got = 0;
    EXPECT_EQ(qfu_fread(file, buffer, got), EFI_SUCCESS);
    EXPECT_EQ(got, 4U);
    buffer.fill('-');
    EXPECT_EQ(qfu_fread(file, buffer, got), EFI_SUCCESS);
    EXPECT_EQ(got, 1U);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "o---");
    EXPECT_EQ(qfu_fseek(file, QFU_SEEK::START), 0);
    EXPECT_EQ(qfu_fread(file, buffer, got), EFI_SUCCESS);
    EXPECT_EQ(qfu_fseek(file, QFU_SEEK::CURRENT), 0);
    EXPECT_EQ(qfu_fread(file, buffer, got), EFI_SUCCESS);
    EXPECT_EQ(got, 1U);
    EXPECT_EQ(qfu_fclose(file), EFI_SUCCESS);
    EXPECT_EQ(lab.printed(), "");
}

TEST_F(Files, WritingStartsWithAnEmptyFileAndFlushesEveryWrite) {
    lab.write_file("old.bin", std::string(10'000, 'x'));
    for (const char* name : {"old.bin", "new.bin"}) {
        const std::uint64_t flushes = lab.firmware().files().flushes();
        QFU_FILE file = qfu_fopen(name, "w");
        ASSERT_TRUE(file);
        EXPECT_EQ(qfu_fsize(file), 0U);
        EXPECT_EQ(qfu_fwrite(file, bytes("ab")), EFI_SUCCESS);
        EXPECT_EQ(qfu_fwrite(file, bytes("c")), EFI_SUCCESS);
        EXPECT_EQ(qfu_fwrite(file, {}), EFI_ABORTED);
        EXPECT_EQ(lab.firmware().files().flushes(), flushes + 2);
        qfu_fclose(file);
        EXPECT_EQ(lab.read_text(name), "abc");
    }
}

TEST_F(Files, ModeAKeepsWhatIsThere) {
    lab.write_file("a.txt", "hello");
    for (const char* name : {"a.txt", "b.txt"}) {
        QFU_FILE file = qfu_fopen(name, "a");
        EXPECT_EQ(qfu_fwrite(file, bytes("J")), EFI_SUCCESS);
    }
    EXPECT_EQ(lab.read_text("a.txt"), "Jello");
    EXPECT_EQ(lab.read_text("b.txt"), "J");
}

TEST_F(Files, OtherModesAreRefused) {
    for (const std::string mode : {"rb", "W", ""}) {
        EXPECT_FALSE(qfu_fopen("a.txt", mode.c_str()));
        EXPECT_EQ(lab.printed(), "Error 1587=>No Supported this mode(" + mode + ")\r\n");
    }
}

TEST_F(Files, FormattedTextGetsDosLineEnds) {
    QFU_FILE file = qfu_fopen("t.txt", "w");
    EXPECT_EQ(qfu_fprintf(file, "a\nb\n"), 4);
    EXPECT_EQ(qfu_fprintf(file, "%04X\n", 0xAB), 5);
    qfu_fclose(file);
    EXPECT_EQ(lab.read_text("t.txt"), "a\r\nb\r\n00AB\r\n");
}

TEST_F(Files, FormattedTextIsCutAtItsBuffers) {
    const std::string lines(1100, '\n');
    QFU_FILE file = qfu_fopen("t.txt", "w");
    EXPECT_EQ(qfu_fprintf(file, "%s", lines.c_str()), 1023);
    qfu_fclose(file);
    EXPECT_EQ(lab.read_text("t.txt").size(), 1024U);
}

TEST_F(Files, FormattedTextReportsMissingMemory) {
    QFU_FILE file = qfu_fopen("t.txt", "w");
    const std::uint64_t calls = lab.faults().pool.calls();
    lab.faults().pool.fail(calls + 1);
    EXPECT_EQ(qfu_fprintf(file, "x"), -1);
    EXPECT_EQ(lab.printed(), "*tmp0_buffer==> resource is not enough.\r\n");
    lab.faults().pool.fail(calls + 3);
    EXPECT_EQ(qfu_fprintf(file, "x"), -1);
    EXPECT_EQ(lab.printed(), "*tmp1_buffer==> resource is not enough.\r\n");
}

TEST_F(Files, FoldersAreNoFiles) {
    std::filesystem::create_directory(lab.folder() / "dir");
    lab.write_file("dir/kept.txt", "kept");
    EXPECT_FALSE(qfu_fopen("dir", "r"));
    EXPECT_EQ(lab.printed(), "1525Error.dir is a directory.\r\n");
    EXPECT_FALSE(qfu_fopen("dir", "w"));
    EXPECT_EQ(lab.printed(), "1525Error.dir is a directory.\r\n");
    EXPECT_EQ(lab.read_text("dir/kept.txt"), "kept");
}

TEST_F(Files, WildcardsUseTheFirstMatchIfItIsUsable) {
    lab.write_file("a.txt", "first");
    lab.write_file("b.txt", "second one");
    std::filesystem::create_directory(lab.folder() / "c.txt");
    std::filesystem::create_directory(lab.folder() / "d.txt");
    QFU_FILE file = qfu_fopen("*.TXT", "r");
    ASSERT_TRUE(file);
    EXPECT_EQ(qfu_fsize(file), 5U);
    EXPECT_EQ(lab.printed(), "");
    EXPECT_FALSE(qfu_fopen("[cd].txt", "r"));
    EXPECT_EQ(lab.printed(),
              "1525Error.c.txt is a directory.\r\n1525Error.d.txt is a directory.\r\n");
    EXPECT_FALSE(qfu_fopen("x*", "r"));
    EXPECT_EQ(lab.printed(), "Error line 1605. The file x* did not open.\r\n");
}

TEST_F(Files, AnUnusableFirstMatchSpoilsTheOthers) {
    lab.write_file("a.txt", "locked");
    lab.write_file("b.txt", "good");
    chmod((lab.folder() / "a.txt").c_str(), 0444);
    EXPECT_FALSE(qfu_fopen("*.txt", "a"));
    EXPECT_EQ(lab.printed(), "1516Error. The file a.txt wouldn't open: Access Denied.\r\n");
    // Writing needs the file gone first, which a read-only file refuses.
    EXPECT_FALSE(qfu_fopen("a.txt", "w"));
    EXPECT_EQ(lab.printed(), "Error line 1636. The file a.txt can't be created.\r\n");
}

TEST_F(Files, NoFileIsHarmless) {
    QFU_FILE none;
    std::size_t got = 0;
    std::array<std::uint8_t, 1> buffer{};
    EXPECT_EQ(qfu_fseek(none, QFU_SEEK::END), 0);
    EXPECT_EQ(qfu_fsize(none), 0U);
    EXPECT_EQ(qfu_fread(none, buffer, got), EFI_ABORTED);
    EXPECT_EQ(qfu_fwrite(none, bytes("x")), EFI_ABORTED);
    EXPECT_EQ(qfu_fprintf(none, "%d\n", 12), 3);
    EXPECT_EQ(qfu_fclose(none), EFI_SUCCESS);
    EXPECT_EQ(lab.printed(), "");
}

TEST_F(Files, SizesAreCutTo32Bits) {
    lab.write_file("huge.bin", "");
    std::filesystem::resize_file(lab.folder() / "huge.bin", 5ULL << 30);
    QFU_FILE file = qfu_fopen("huge.bin", "r");
    EXPECT_EQ(qfu_fsize(file), 1U << 30);
    // The file's information is asked for first.
    lab.faults().file.fail(lab.faults().file.calls() + 2);
    EXPECT_EQ(qfu_fsize(file), 0U);
}

TEST_F(Files, EveryFailingCallHasItsMessage) {
    // Mode "w" on an existing file: open and free its list, open by name, delete, open (nothing
    // there) and free, create, close, open.
    struct Step {
        std::uint64_t call;
        const char* message;
    };
    const Step steps[] = {
        {2, "Error line 1626. The file a.txt can't be deleted.\r\n"},
        {3, "Error line 1636. The file a.txt can't be created.\r\n"},
        {4, "Error line 1626. The file a.txt can't be deleted.\r\n"},
        {7, "Error line 1613. The file a.txt can't be created.\r\n"},
    };
    for (const Step& step : steps) {
        lab.write_file("a.txt", "x");
        lab.faults().file.fail(lab.faults().file.calls() + step.call);
        EXPECT_FALSE(qfu_fopen("a.txt", "w"));
        EXPECT_EQ(lab.printed(), step.message);
        lab.faults().file.fail(0);
    }
    // Nothing old can show in a file that has always been empty.
    lab.write_file("a.txt", "");
    lab.faults().file.fail(lab.faults().file.calls() + 4);
    EXPECT_TRUE(qfu_fopen("a.txt", "w"));
    EXPECT_EQ(lab.printed(), "");
}

TEST_F(Files, GiveUpOnANameThatCanBeMadeButNotFound) {
    // Made by name it is what it says; looked for, it is a pattern that matches something else.
    for (const char* mode : {"w", "a"}) {
        const std::uint64_t calls = lab.faults().file.calls();
        EXPECT_FALSE(qfu_fopen("x[1].bin", mode));
        EXPECT_LT(lab.faults().file.calls(), calls + 20);
        EXPECT_EQ(lab.printed(), "Error line 1613. The file x[1].bin can't be created.\r\n");
    }
}

TEST_F(Files, ABreakLeavesNoUsableEntry) {
    lab.write_file("a.txt", "x");
    lab.faults().break_query.fail(lab.faults().break_query.calls() + 1);
    EXPECT_FALSE(qfu_fopen("a.txt", "r"));
    EXPECT_EQ(lab.printed(), "");
}

} // namespace
