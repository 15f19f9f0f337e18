// The built programs, run as a person runs them.
#include "lab.h"
#include "support/table_reader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using lab::Lab;

struct Result {
    int status;
    std::string output; ///< both streams
};

Result shell(const std::string& command) {
    FILE* pipe = popen(("(" + command + ") 2>&1 </dev/null").c_str(), "r");
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
    /// Takes the right to overlook file permissions from a superuser.
    std::string as_owner =
        geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search " : "";
};

TEST(QfuEmu, KeepsFlashContentsFromRunToRunAndLogsCycles) {
    Folder f;
    f.lab.write_file("image.bin", lab::pattern(10));
    const Result program = f.run(
        "qfu-emu", "--machine machine.toml --keys y --log log.txt -- -wbf image.bin -addr 16");
    EXPECT_EQ(program.status, 0) << program.output;
    EXPECT_NE(program.output.find("Write file is successful!!"), std::string::npos);
    EXPECT_EQ(f.lab.read_file("chip.bin").size(), 0x80000U);
    const std::string log = f.lab.read_text("log.txt");
    const std::size_t cycle = log.find("  0.cs1  02 @000019 > ");
    ASSERT_NE(cycle, std::string::npos);
    EXPECT_GT(std::stod(log.substr(log.rfind('\n', cycle), 12)), 0.0) << "the time";
    for (const char* input : {"machine.toml", "./chip.bin", "image.bin", "new.toml"}) {
        EXPECT_EQ(f.run("qfu-emu", std::string("--machine machine.toml --log ") + input +
                                       " -- -wbf image.bin -addr 0")
                      .status,
                  2)
            << input;
    }
    EXPECT_EQ(f.lab.read_file("image.bin"), lab::pattern(10));
    EXPECT_TRUE(f.run("qfu-emu", "--machine machine.toml --log /dev/full -- -l")
                    .output.ends_with("qfu-emu: /dev/full: cannot be written: No space left on "
                                      "device\n"));
    EXPECT_EQ(f.run("qfu-emu", "--machine machine.toml -- -l >/dev/full").status, 2);
    EXPECT_EQ(f.run("qfu-emu", "--machine machine.toml -- -rfb dump.bin -addr 16 -sz 10").status,
              0);
    EXPECT_EQ(f.lab.read_file("dump.bin"), lab::pattern(10));
}

TEST(QfuEmu, TakesNoImageFileThatItCannotKeepAndLetsNobodyElseWriteToOne) {
    Folder f;
    const auto run = [&](const std::string& before, const std::string& arguments) {
        return shell("cd " + f.lab.folder().string() + " && " + before + " && " + f.as_owner +
                     QFU_TOOLS "/qfu-emu --machine machine.toml --keys '' -- " + arguments);
    };
    const std::string chip = "qfu-emu: chip.bin: ";
    EXPECT_EQ(run("mkdir chip.bin", "-l").output,
              chip + "is a folder; it must be a file of 524288 bytes\n");
    EXPECT_EQ(run("rmdir chip.bin && echo >chip.bin", "-l").output,
              chip + "holds 1 bytes; it must hold the 524288 bytes of its chip\n");
    EXPECT_EQ(run("rm chip.bin && touch chip.bin && chmod 0 chip.bin", "-l").output,
              chip + "cannot be read: Permission denied\n");
    EXPECT_EQ(run("rm -f chip.bin", "-rfb chip.bin -addr 0 -sz 1").status, 3);
    EXPECT_EQ(f.lab.read_file("chip.bin").size(), 0x80000U) << "its own chip's";
    EXPECT_EQ(run("chmod 444 chip.bin", "-l").status, 0);
    const Result lost = run("true", "-wbf machine.toml -addr 0 -y");
    EXPECT_EQ(lost.status, 2);
    EXPECT_TRUE(
        lost.output.ends_with(chip + "is read-only; what was written to its chip is lost\n"));
}

TEST(QfuEmu, ExitsWithTheShellsStatusAndSaysWhatIsWrong) {
    Folder f;
    EXPECT_EQ(f.run("qfu-emu", "--machine machine.toml -- -h").status, 3);
    const Result file = f.run("qfu-emu", "--machine none.toml -- -l");
    EXPECT_EQ(file.status, 2);
    EXPECT_NE(file.output.find("none.toml"), std::string::npos);
    EXPECT_EQ(f.run("qfu-emu", "-- -l").status, 2);
    const Result no_separator = f.run("qfu-emu", "--machine machine.toml -l");
    EXPECT_EQ(no_separator.status, 2);
    EXPECT_NE(no_separator.output.find("qfu-emu --machine FILE -- -l"), std::string::npos);
    EXPECT_NE(f.run("qfu-emu", "lst parts").output.find("Did you mean \"list\"?"),
              std::string::npos);
    EXPECT_NE(f.run("qfu-emu", "list fault").output.find("did you mean \"faults\"?"),
              std::string::npos);
    EXPECT_NE(f.run("qfu-emu", "list parts").output.find("W25X40       EF 30 13   512 KiB"),
              std::string::npos);
    EXPECT_EQ(f.run("qfu-emu", "--machine . -- -l").output,
              "qfu-emu: .: is a folder; it must be a TOML file\n");
    const Result starved = f.run("qfu-emu", "--machine machine.toml -- -wpa");
    EXPECT_NE(starved.output.find("asked for a key and there was none"), std::string::npos);
}

TEST(QfuEmu, SumsUpWhatHappenedOnTheBus) {
    Folder f;
    f.lab.write_file("image.bin", lab::pattern(10));
    const auto run = [&](const std::string& options) {
        return f.run("qfu-emu", "--machine machine.toml --summary --log log.txt" + options +
                                    " -- -wbf image.bin -addr 16 -y");
    };
    const std::string text = run("").output;
    EXPECT_EQ(run(" --trace t.vcd").output, text) << "beside another probe";
    EXPECT_NE(f.lab.read_text("t.vcd").find("sector_erase"), std::string::npos);
    const auto seconds = [&](const std::string& row) {
        std::smatch found;
        const std::regex pattern("0\\.cs1 +" + row + " +([0-9.]+)\n");
        return std::regex_search(text, found, pattern) ? std::stod(found[1]) : -1;
    };
    std::istringstream log(f.lab.read_text("log.txt")); // another account of the same run
    std::size_t polls = 0;
    for (std::string line; std::getline(log, line);) {
        polls += line.ends_with("  read status") ? 1 : 0;
    }
    EXPECT_GT(polls, 10U);
    EXPECT_GT(seconds("read status +" + std::to_string(polls) + " +" + std::to_string(polls)), 0);
    EXPECT_GT(seconds("program +10 +10"), 0);
    EXPECT_NEAR(seconds("sector erase +1 +0"), 0.1, 0.001) << "the wait behind it";
    EXPECT_TRUE(std::regex_search(text, std::regex("adapter 0: [0-9]+ register accesses, [0-9.]+ "
                                                   "a byte programmed or read\n$")));
}

/// What a terminal got, without the line that tells how far the run is.
struct Seen {
    std::string program;
    std::vector<int> percents;
    bool wiped = true; ///< the line, before anything else and at the end
};

Seen take_apart(const std::string& seen) {
    const std::string to_line = "\033D\033[A\0337\033[B\r"; // below the program's
    const std::string back = "\033[K\0338";
    Seen result;
    bool shown = false;
    std::size_t at = 0;
    for (std::size_t line = 0; (line = seen.find(to_line, at)) != seen.npos;) {
        result.program += seen.substr(at, line - at);
        result.wiped = result.wiped && (!shown || line == at);
        const std::string text = seen.substr(line + to_line.size(), 60);
        std::smatch found;
        if (std::regex_search(text, found,
                              std::regex("^qfu-emu: ([0-9]+) %,.* of (16|31|32) KiB"))) {
            result.percents.push_back(std::stoi(found[1]));
        }
        shown = !text.starts_with('\033');
        at = seen.find(back, line + to_line.size()) + back.size();
    }
    result.program += seen.substr(at);
    result.wiped = result.wiped && !shown;
    return result;
}

TEST(QfuEmu, ShowsOnATerminalHowFarALongRunIs) {
    Folder f;
    const std::string machine = "[[adapter]]\ndevice = 0xC709\nslot = 2\n"
                                "[adapter.spi]\npart = \"W25X40\"\n";
    f.lab.write_file("typical.toml", machine);
    f.lab.write_file("maximum.toml", "time = \"maximum\"\n" + machine);
    f.lab.write_file("image.bin", lab::pattern(0x4000));
    // Who reads the log slowly makes a short run a long one.
    const auto start = [](const std::string& name, const std::string& pace, const std::string& time,
                          const std::string& arguments) {
        return "mkfifo " + name + "; { for i in 1 2 3 4 5; do sleep 0.4; head -c " + pace +
               "; done; cat; } <" + name + " >/dev/null & TERM=xterm script -E never -qec '" +
               QFU_TOOLS "/qfu-emu --machine " + time + ".toml --keys y --log " + name + " -- " +
               arguments + "' " + name + ".seen >/dev/null & ";
    };
    shell("cd " + f.lab.folder().string() + "; " +
          start("program", "1M", "typical", "-wbf image.bin -addr 0 -y") +
          start("quiet", "1M", "typical", "-wbf image.bin -addr 0 -y 2>errors") +
          start("file", "1M", "typical", "-wbf image.bin -addr 0 -y >output") +
          start("quick", "100M", "typical", "-rfb some.bin -addr 0 -sz 5000") +
          start("dump", "80K", "typical", "-rfb dump.bin -addr 1 -sz 0x8000") +
          start("erase", "2M", "maximum", "-se -addr 0x100 -sz 0x7f00 -y") + "wait");
    const auto seen = [&](const std::string& name) {
        const std::string text = f.lab.read_text(name + ".seen"); // a line of script, then ours
        return take_apart(text.substr(text.find('\n'), text.rfind("\nScript") - text.find('\n')));
    };
    for (const char* name : {"program", "dump", "erase"}) {
        const Seen run = seen(name);
        EXPECT_TRUE(run.wiped) << name;
        EXPECT_GE(run.percents.size(), 2U) << name;
        EXPECT_TRUE(std::ranges::is_sorted(run.percents)) << name;
        EXPECT_TRUE(run.percents.empty() || run.percents.back() < 100) << "before the end";
    }
    for (const char* name : {"quiet", "file", "quick"}) {
        EXPECT_EQ(f.lab.read_text(std::string(name) + ".seen").find('\033'), std::string::npos);
    }
    EXPECT_EQ(seen("quiet").program, seen("program").program);
    EXPECT_EQ(f.lab.read_text("errors"), "");
}

TEST(QfuEmu, TellsWhereTimeWouldGoOnHardware) {
    Folder f;
    f.lab.write_file("image.bin", lab::pattern(10));
    const std::string program = " -- -wbf image.bin -addr 16 -y";
    const auto estimate = [&] {
        return nlohmann::json::parse(
            f.run("qfu-emu", "--machine machine.toml --estimate json" + program).output);
    };
    const auto typical = estimate();
    EXPECT_GE(typical["chip_busy_seconds"], 0.030) << "one sector's erase";
    EXPECT_GE(typical["pause_seconds"], 0.070 - 0.001) << "the rest of the wait behind it";
    std::string machine = f.lab.read_text("machine.toml");
    f.lab.write_file("machine.toml", "time = \"none\"\n" + machine);
    const auto ready = estimate();
    EXPECT_EQ(ready["chip_busy_seconds"], 0);
    EXPECT_NEAR(ready["access_seconds"].get<double>(),
                ready["reads"].get<double>() * 1e-6 + ready["writes"].get<double>() * 1e-7, 1e-12);
    EXPECT_EQ(f.run("qfu-emu", "--machine machine.toml" + program).output.find("hardware about"),
              std::string::npos);
    f.lab.write_file("machine.toml", "time = \"none\"\n" + machine +
                                         "[adapter.access_ns]\nread = 2000\nwrite = 0\n");
    EXPECT_NEAR(estimate()["access_seconds"].get<double>(), ready["reads"].get<double>() * 2e-6,
                1e-12);
    EXPECT_NE(f.run("qfu-emu", "--machine machine.toml" + program).output.find("hardware about"),
              std::string::npos);
}

TEST(QfuEmu, SaysInFewWordsWhatTheHardwareSuffered) {
    Folder f;
    const std::string machine = f.lab.read_text("machine.toml");
    const std::string fault = "[[adapter.spi.fault]]\nkind = ";
    f.lab.write_file("machine.toml", machine + fault + "\"not stored\"\non = \"sector erase\"\n" +
                                         fault + "\"no answer\"\non = \"read\"\nnth = 9999\n" +
                                         "[[adapter.fault]]\nkind = \"power\"\nat_us = 90000000\n" +
                                         "[[firmware_fault]]\ncall = \"pool\"\nnth = 9999\n");
    f.lab.write_file("chip.bin", lab::Bytes(0x80000, 0));
    f.lab.write_file("image.bin", std::string(25, 'A'));
    const std::string output =
        f.run("qfu-emu", "--machine machine.toml -- -wbf image.bin -addr 0 -y").output;
    std::string notes;
    for (int i = 0; i < 10; ++i) {
        notes += "qfu-emu: misuse: 0.cs1: program of 41 over 00 at 00000" + std::to_string(i) +
                 " sets bits\n";
    }
    EXPECT_TRUE(output.ends_with(notes + "qfu-emu: misuse: and 15 more\n"
                                         "qfu-emu: machine.toml:10: this fault never struck\n"
                                         "qfu-emu: machine.toml:14: this fault never struck\n"
                                         "qfu-emu: machine.toml:17: this fault never struck\n"))
        << output;
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
              " && mkfifo silence && { exec 3<>silence; timeout --foreground --preserve-status -s "
              "INT 2 " +
              QFU_TOOLS "/qfu-emu --machine machine.toml -- -phytest -p 0 -r 0 -lback <&3; }");
    EXPECT_EQ(broken.status, 0) << broken.output;
    EXPECT_NE(broken.output.find("**Phy test successfully on Port 0"), std::string::npos);
    EXPECT_EQ(broken.output.find("asked for a key"), std::string::npos);
    EXPECT_EQ(f.lab.read_file("chip.bin").size(), 0x80000U);
}

const std::string kSource = QFU_SOURCE_DIR "/chiplist/chips.toml";

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
    const lab::Bytes built = f.lab.read_file("out.bin");
    EXPECT_EQ(built.size(), 2944U);

    const Result wrong =
        build(a + "[[chip]]\nparts = [\"B\"]\nid = \"EF4016\"\nsize = \"4M\"\n"
                  "[[chip]]\nparts = [\"C\", \"B\"]\nid = \"EF40\"\nsize = \"3M\"\n"
                  "sector = \"64K\"\n");
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.output,
              "chips.toml:19: B: id: is hidden by the shorter ID of A\n"
              "chips.toml:22: C: parts: B is already in the list\n"
              "chips.toml:23: C: id: is also the ID of A\n"
              "chips.toml:24: C: size: 3145728 is not a power of two\n"
              "chips.toml:25: C: sector: 64K needs its own sector_erase; the common one erases 4K\n"
              "out.bin: not written\n");
    EXPECT_EQ(f.lab.read_file("out.bin"), built) << "the old list is lost";
    const std::string source = f.lab.read_text("chips.toml");
    EXPECT_EQ(f.run("spilist", "build chips.toml -o ./chips.toml").status, 2);
    EXPECT_EQ(f.lab.read_text("chips.toml"), source) << "the source is lost";

    std::string many;
    for (int i = 0; i < 64; ++i) {
        many +=
            "[[chip]]\nparts = [\"P\"]\nid = \"01" + std::to_string(10 + i) + "\"\nsize = \"1M\"\n";
    }
    EXPECT_NE(build(many).output.find("chips.toml:265: list: records: there are 64;"),
              std::string::npos);
    const Result typo = build("[[chip]]\nparts = [\"A\"]\nid = \"EF 4\"\nsize = \"1M\"\n");
    EXPECT_EQ(typo.status, 2);
    EXPECT_EQ(typo.output,
              "spilist: chips.toml:15: id: must be bytes in hexadecimal like \"EF 40 16\"\n");
    EXPECT_EQ(build(a + "sectr = \"4K\"\n").output,
              "spilist: chips.toml:17: sectr: unknown key \"sectr\"; did you mean \"sector\"?\n");
    EXPECT_EQ(
        f.run("spilist", "build " + kSource + " --erase-unit 128K").output,
        "spilist: --erase-unit: 128K is no erase unit of these chips; they have 4K, 32K, 64K\n");
}

TEST(Spilist, SaysEverythingThatIsWrongWithABrokenList) {
    const std::filesystem::path folder = QFU_SOURCE_DIR "/tests/chip_lists";
    const std::filesystem::path described = QFU_SOURCE_DIR "/tests/chip_lists.toml";
    const toml::table root = support::parse_toml(described);
    support::TableReader all(root, described);
    const auto lists = all.tables("list");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}),
              static_cast<std::ptrdiff_t>(lists.size()));
    const Folder f;
    for (const toml::table* list : lists) {
        support::TableReader reader(*list, described);
        const std::string file = (folder / reader.text("file")).string();
        const auto findings = reader.texts("findings");
        std::string expected;
        for (const std::string& finding : findings) {
            expected.append(file).append(": ").append(finding).append("\n");
        }
        const Result result = f.run("spilist", "check " + file);
        const std::size_t summary = result.output.rfind(file + ": ");
        EXPECT_EQ(result.output.substr(0, summary), expected);
        EXPECT_EQ(result.output.find("would reject the list", summary) != std::string::npos,
                  reader.number("rejected", 0, 1) == 1)
            << result.output;
        EXPECT_EQ(result.status, findings.empty() ? 0 : 1) << file;
    }
}

TEST(Spilist, ShowsComparesAndMatchesLists) {
    Folder f;
    EXPECT_EQ(f.run("spilist", "build " + kSource + " -o slow.bin").status, 0);
    EXPECT_EQ(f.run("spilist", "build " + kSource + " -o fast.bin --erase-unit 64K").status, 0);
    EXPECT_EQ(f.run("spilist", "check fast.bin").status, 0);
    const std::string row = " EF 40 16    4M     64K    64K  06  05  01  03  02  D8  D8  C7       "
                            "6.4 s";
    EXPECT_NE(f.run("spilist", "show fast.bin").output.find(row + "\n"), std::string::npos);
    const Result named = f.run("spilist", "show fast.bin --source " + kSource);
    EXPECT_NE(named.output.find(row + "  W25Q32\n"), std::string::npos) << named.output;
    EXPECT_NE(named.output.find("\nSST25VF080B: Powers up protected, and the program lifts that "
                                "only for the two bytes BF 25."),
              std::string::npos);
    EXPECT_NE(f.run("spilist", "show slow.bin").output.find("102.4 s"), std::string::npos);
    // Units above 64 KiB stay as they are, and so do those of chips that have no larger one.
    EXPECT_NE(named.output.find("20 20 10   64K     32K    32K"), std::string::npos);

    EXPECT_EQ(f.run("spilist", "diff slow.bin " + kSource).status, 0) << "a source is its list";
    const Result differ = f.run("spilist", "diff " + kSource + " fast.bin");
    EXPECT_EQ(differ.status, 1);
    EXPECT_NE(differ.output.find("W25Q32: sector: 4K -> 64K\nW25Q32: sector_erase: 20 -> D8\n"),
              std::string::npos)
        << differ.output;
    const std::string lists = QFU_SOURCE_DIR "/tests/chip_lists/";
    EXPECT_EQ(
        f.run("spilist", "diff " + lists + "good.bin " + lists + "end-in-the-middle.bin 2>errors")
            .output,
        "record 1 (C2 20 13): record: C2 20 13, 512K -> none\n");

    const Result hides = f.run("spilist", "match " + lists + "id-hidden.bin EF 40 13");
    EXPECT_EQ(hides.status, 1) << "the list is broken";
    EXPECT_NE(hides.output.find("id-hidden.bin: the program would load the list but misuse it\n"),
              std::string::npos);
    EXPECT_NE(hides.output.find(
                  "chosen: record 0, ID EF 40, 512K\nhidden: record 1, ID EF 40 13, 512K\n"),
              std::string::npos);
    const std::string w25x40 = "ID EF 30 13, 512K, W25X40\n";
    const std::string forward = f.run("spilist", "match " + kSource + " 0xEF3013").output;
    EXPECT_TRUE(forward.ends_with(w25x40)) << forward;
    const std::string backward = f.run("spilist", "match " + kSource + " 0x1330EF").output;
    EXPECT_TRUE(backward.starts_with("No record matches 13 30 EF.")) << backward;
    EXPECT_TRUE(backward.ends_with(w25x40)) << backward;
    EXPECT_NE(f.run("spilist", "match slow.bin '1F 44 01' --source " + kSource)
                  .output.find(", ID 1F 44, 512K, AT25DF041A\nnote: Powers up protected."),
              std::string::npos);
    EXPECT_EQ(f.run("spilist", "match slow.bin EF4099").status, 1);
    const Result rejected = f.run("spilist", "match " + lists + "marker.bin EF4013");
    EXPECT_EQ(rejected.status, 1);
    EXPECT_EQ(rejected.output.find("chosen"), std::string::npos) << rejected.output;
}

TEST(Spilist, WritesJsonForScripts) {
    const Folder f;
    const auto json = [&](const std::string& arguments) {
        return nlohmann::json::parse(f.run("spilist", arguments + " --json 2>errors").output);
    };
    const std::string lists = QFU_SOURCE_DIR "/tests/chip_lists/";
    const auto check = json("check " + lists + "marker.bin");
    EXPECT_EQ(check["rejected"], true);
    EXPECT_EQ(check["findings"][0]["entry"], "list");
    EXPECT_EQ(check["findings"][0]["field"], "marker");
    const auto show = json("show " + lists + "good.bin");
    EXPECT_EQ(show["chips"][1]["id"], "C2 20 13");
    EXPECT_EQ(show["chips"][1]["size"], 0x80000);
    EXPECT_EQ(show["chips"][1]["opcodes"]["chip_erase"], 0xC7);
    const auto diff = json("diff " + lists + "good.bin " + lists + "no-opcodes.bin");
    EXPECT_EQ(diff[0]["field"], "id_opcodes");
    EXPECT_EQ(diff[0]["before"], "9F");
    const auto match = json("match " + lists + "id-hidden.bin EF4013");
    EXPECT_EQ(match["chosen"]["record"], 0);
    EXPECT_EQ(match["hidden"][0]["record"], 1);
}

TEST(Spilist, ExitsWith2WhenItCannotWork) {
    const Folder f;
    std::filesystem::create_directory(f.lab.folder() / "folder.toml");
    const std::string good = QFU_SOURCE_DIR "/tests/chip_lists/good.bin ";
    const std::string magic = QFU_SOURCE_DIR "/tests/chip_lists/magic.bin ";
    const std::pair<std::string, std::string> cases[] = {
        {"",                                    "A subcommand is required"                        },
        {"shwo",                                "unknown command \"shwo\"; did you mean \"show\"?"},
        {"check",                               "spilist check --help"                            },
        {"check none.bin",                      "none.bin: cannot be read: No such file"          },
        {"check .",                             ".: is a folder; it must be a chip list"          },
        {"show folder.toml",                    "folder.toml: is a folder; it must be a TOML file"},
        {"match " + good + "0xEF_40",           "\"0xEF_40\" is no ID"                            },
        {"match " + good + "EF 40 13 00 00",    "1 to 4 bytes"                                    },
        {"build machine.toml",                  "machine.toml:"                                   },
        {"diff " + good + magic,                "no chip list"                                    },
        {"build " + kSource + " -o /dev/full",  "/dev/full: cannot be written: No space left"     },
        {"show --json " + good + " >/dev/full", "standard output: cannot be written in full"      },
        {"--help >/dev/full",                   "standard output: cannot be written in full"      },
    };
    for (const auto& [arguments, message] : cases) {
        const Result result = f.run("spilist", arguments);
        EXPECT_EQ(result.status, 2) << arguments;
        EXPECT_NE(result.output.find(message), std::string::npos) << arguments << result.output;
    }
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
