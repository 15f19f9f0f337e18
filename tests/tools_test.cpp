// The built programs, run as a person runs them.
#include "lab.h"

#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

using lab::Lab;

struct Result {
    int status;
    std::string output; ///< both streams
};

Result shell(const std::string& command) {
    FILE* pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
    std::string output;
    std::array<char, 4096> buffer{};
    for (std::size_t got = 0; (got = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
        output.append(buffer.data(), got);
    }
    return {WEXITSTATUS(pclose(pipe)), output};
}

/// A folder with a machine and files, and the tools run in it.
struct Folder {
    Folder() {
        lab.write_file("machine.toml", "[[adapter]]\ndevice = 0xC709\nslot = 2\n"
                                       "[adapter.spi]\npart = \"W25X40\"\nimage = \"chip.bin\"\n");
    }
    Result run(const std::string& tool, const std::string& arguments) const {
        return shell("cd " + lab.folder().string() + " && " QFU_TOOLS "/" + tool + " " + arguments);
    }
    Lab lab;
};

TEST(QfuEmu, KeepsFlashContentsFromRunToRunAndLogsCycles) {
    Folder f;
    f.lab.write_file("image.bin", lab::pattern(10));
    const Result program = f.run(
        "qfu-emu", "--machine machine.toml --keys y --log log.txt -- -wbf image.bin -addr 16");
    EXPECT_EQ(program.status, 0) << program.output;
    EXPECT_NE(program.output.find("Write file is successful!!"), std::string::npos);
    EXPECT_EQ(f.lab.read_file("chip.bin").size(), 0x80000U);
    EXPECT_NE(f.lab.read_text("log.txt").find("0.cs1  02 @000019 > "), std::string::npos);
    EXPECT_EQ(f.run("qfu-emu", "--machine machine.toml -- -rfb dump.bin -addr 16 -sz 10").status,
              0);
    EXPECT_EQ(f.lab.read_file("dump.bin"), lab::pattern(10));
}

TEST(QfuEmu, ExitsWithTheShellsStatusAndSaysWhatIsWrong) {
    Folder f;
    EXPECT_EQ(f.run("qfu-emu", "--machine machine.toml -- -h").status, 3);
    const Result file = f.run("qfu-emu", "--machine none.toml -- -l");
    EXPECT_EQ(file.status, 2);
    EXPECT_NE(file.output.find("none.toml"), std::string::npos);
    EXPECT_EQ(f.run("qfu-emu", "-- -l").status, 2);
    EXPECT_NE(f.run("qfu-emu", "--help").output.find("--machine"), std::string::npos);
    const Result starved = f.run("qfu-emu", "--machine machine.toml -- -wpa");
    EXPECT_NE(starved.output.find("asked for a key and there was none"), std::string::npos);
}

TEST(QfuEmu, EndsAnEndlessLoopbackThatNobodyWatches) {
    Folder f;
    const Result nobody =
        f.run("qfu-emu", "--machine machine.toml --log log.txt -- -phytest -p 1 -r 0 -lback");
    EXPECT_NE(nobody.output.find("**Phy test successfully on Port 1"), std::string::npos);
    EXPECT_NE(nobody.output.find("asked for a key and there was none"), std::string::npos);
    EXPECT_NE(f.lab.read_text("log.txt").find("0.phy1  test control        95 < B0E0  pass, lock"),
              std::string::npos);
    const Result key = f.run("qfu-emu", "--machine machine.toml --keys kk -- -phytest -r 2 -lback");
    EXPECT_NE(key.output.find("**Phy test successfully on Port 1"), std::string::npos);
    EXPECT_EQ(key.output.find("asked for a key"), std::string::npos);
}

TEST(QfuEmu, CtrlCEndsAnEndlessLoopbackAndKeepsFlashContents) {
    Folder f;
    // Standard input is open, and silent for ever.
    const Result broken =
        shell("cd " + f.lab.folder().string() +
              " && mkfifo silence && { exec 3<>silence; timeout --preserve-status -s INT 2 " +
              QFU_TOOLS "/qfu-emu --machine machine.toml -- -phytest -p 0 -r 0 -lback <&3; }");
    EXPECT_EQ(broken.status, 0) << broken.output;
    EXPECT_NE(broken.output.find("**Phy test successfully on Port 0"), std::string::npos);
    EXPECT_EQ(broken.output.find("asked for a key"), std::string::npos);
    EXPECT_EQ(f.lab.read_file("chip.bin").size(), 0x80000U);
}

TEST(Spilist, BuildsTheShippedListAndNamesWhatItRefuses) {
    Folder f;
    const std::string common = "id_opcodes = [0x9F]\n[common]\nwrite_enable = 6\nread_status = 5\n"
                               "write_status = 1\nread = 3\nprogram = 2\nsector_erase = 0x20\n"
                               "sector = \"4K\"\nblock_erase = 0xD8\nblock = \"64K\"\n"
                               "chip_erase = 0xC7\n";
    const auto build = [&](const std::string& chips) {
        f.lab.write_file("chips.toml", common + chips);
        return f.run("spilist", "build chips.toml -o out.bin");
    };
    const std::string a = "[[chip]]\nparts = [\"A\"]\nid = \"EF 40\"\nsize = \"1M\"\n";
    EXPECT_EQ(build(a).status, 0);
    EXPECT_EQ(f.lab.read_file("out.bin").size(), 2944U);
    std::filesystem::remove(f.lab.folder() / "out.bin");

    const Result hidden = build(a + "[[chip]]\nparts = [\"B\"]\nid = \"EF4016\"\nsize = \"4M\"\n"
                                    "[[chip]]\nparts = [\"C\"]\nid = \"EF40\"\nsize = \"3M\"\n");
    EXPECT_EQ(hidden.status, 1);
    EXPECT_EQ(hidden.output, "chips.toml: B: id: is hidden by the shorter ID of A\n"
                             "chips.toml: C: id: is also the ID of A\n"
                             "chips.toml: C: size: 3145728 is no power of two\n");
    EXPECT_FALSE(f.lab.exists("out.bin"));

    std::string many;
    for (int i = 0; i < 64; ++i) {
        many +=
            "[[chip]]\nparts = [\"P\"]\nid = \"01" + std::to_string(10 + i) + "\"\nsize = \"1M\"\n";
    }
    EXPECT_NE(build(many).output.find("list: records: 64 are more than the 63"), std::string::npos);
    const Result typo = build("[[chip]]\nparts = [\"A\"]\nid = \"EF 4\"\nsize = \"1M\"\n");
    EXPECT_EQ(typo.status, 2);
    EXPECT_EQ(typo.output,
              "spilist: chips.toml:15: id: must be bytes in hexadecimal like \"EF 40 16\"\n");
}

TEST(Man, HoldsTheProgramsOwnTexts) {
    Folder f;
    EXPECT_EQ(f.run("manual/make_man", "qfu.man").status, 0);
    const std::string file = f.lab.read_text("qfu.man");
    ASSERT_EQ(file.substr(0, 2), "\xFF\xFE");
    std::string text;
    for (std::size_t i = 2; i + 1 < file.size(); i += 2) {
        ASSERT_EQ(file[i + 1], '\0');
        text.push_back(file[i]);
    }
    EXPECT_TRUE(text.starts_with(".TH qfu 0 \""));
    EXPECT_NE(text.find("\r\n.SH NAME\r\n"), std::string::npos);
    EXPECT_NE(text.find("\r\n-wpa:     wipe out whole chip.\r\n"), std::string::npos);
    EXPECT_NE(text.find("    -erctn, --error continue.\r\n"), std::string::npos);
}

} // namespace
