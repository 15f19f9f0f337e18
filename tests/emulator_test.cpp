// The firmware's and the machine files' own promises, where the program's tests do not show them.
#include "lab.h"
#include "machine_file.h"
#include "support/input_error.h"

#include <fstream>
#include <gtest/gtest.h>

namespace {

using namespace emulator;
using lab::Lab;

/// The complaint about a machine file with these lines.
std::string complaint(const std::string& text) {
    Lab lab;
    lab.write_file("machine.toml", text);
    try {
        load_machine_file(lab.folder() / "machine.toml");
    } catch (const support::InputError& error) {
        const std::string message = error.what();
        return message.substr(message.find("machine.toml"));
    }
    return "none";
}

TEST(MachineFile, NamesTheLineTheMistakeAndWhatIsAllowed) {
    std::ifstream mistakes(QFU_SOURCE_DIR "/tests/machine_mistakes.txt");
    std::string line;
    std::string text;
    int count = 0;
    while (std::getline(mistakes, line)) {
        if (line.starts_with("=> ")) {
            EXPECT_EQ(complaint(text), "machine.toml:" + line.substr(3)) << text;
            ++count;
        }
        text = line.empty() ? "" : text + line + "\n";
    }
    EXPECT_GT(count, 20);
    EXPECT_NE(complaint("[[adapter]\n").find("machine.toml:1: "), std::string::npos);
    EXPECT_EQ(complaint("[[adapter]]\ndevice = 0xC709\nbus = 64\nslot = 2\nhidden = true\n"),
              "none");
}

TEST(MachineFile, DescribesAdaptersChipsAndFaults) {
    Lab lab;
    lab.write_file("chip.bin", lab::pattern(0x80000));
    lab.write_file("nor.bin", lab::pattern(0x400000));
    lab.write_file("machine.toml", "time = \"none\"\n"
                                   "[[adapter]]\nvendor = 0x1F7E\ndevice = 0xC702\nbus = 1\n"
                                   "slot = 4\nrevision = 0x10\n"
                                   "[adapter.spi]\npart = \"W25X40\"\nstatus = 0x1C\nimage = \"" +
                                       (lab.folder() / "chip.bin").string() +
                                       "\"\n[[adapter.spi.fault]]\nkind = \"not stored\"\n"
                                       "on = \"program\"\naddress = 7\nnth = 2\ntimes = 1\n"
                                       "[[adapter]]\ndevice = 0xC703\nslot = 5\n"
                                       "[adapter.nor]\nid = 0x257E00EC\nimage = \"" +
                                       (lab.folder() / "nor.bin").string() + "\"\n");
    const auto description = load_machine_file(lab.folder() / "machine.toml");
    VirtualClock clock;
    ImageFiles images;
    const auto machine = build_machine(description, clock, images);
    EXPECT_EQ(machine->config_read({1, 4, 0}, 8, 1), 0x10U);
    SpiChip& chip = *machine->adapter(0).spi().chip();
    EXPECT_TRUE(lab::equal(chip.contents(), lab::pattern(0x80000)));
    EXPECT_EQ(chip.status(), 0x1C);
    EXPECT_FALSE(chip.faults().empty());
    chip.contents()[0] = 0x77;
    NorChip& nor = *machine->adapter(1).nor()->chip();
    EXPECT_TRUE(lab::equal(nor.contents(), lab::pattern(0x400000)));
    nor.contents()[1] = 0x78;
    EXPECT_EQ(lab.read_file("chip.bin")[0], 0x77) << "what a chip holds is in its file at once";
    EXPECT_EQ(lab.read_file("nor.bin")[1], 0x78);
}

TEST(MachineFile, EveryShippedMachineLoads) {
    for (const auto& file :
         std::filesystem::directory_iterator(QFU_SOURCE_DIR "/emulator/machines")) {
        EXPECT_NO_THROW(load_machine_file(file.path())) << file.path();
    }
}

TEST(Pool, NotesWhatIsFreedTwice) {
    Lab lab;
    emulator::MemoryPool& pool = lab.firmware().pool();
    void* memory = pool.allocate(10);
    EXPECT_EQ(static_cast<std::uint8_t*>(memory)[9], 0xAF) << "never zero by chance";
    EXPECT_TRUE(pool.free(memory));
    EXPECT_FALSE(pool.free(memory)); // NOLINT(clang-analyzer-unix.Malloc)
    EXPECT_EQ(lab.take_misuses().size(), 1U);
}

TEST(ShellPaths, AreTidiedAsTheShellDoes) {
    Lab lab;
    std::filesystem::create_directories(lab.folder() / "a" / "b");
    lab.write_file("top.bin", "1");
    lab.write_file("a/b/deep.bin", "2");
    lab.kind(1);
    for (const char* name : {"top.bin", "TOP.BIN", ".\\top.bin", "\\top.bin", "fs0:\\top.bin",
                             "a/b/deep.bin", "a\\b\\..\\b\\deep.bin", "a\\.\\b\\deep.bin"}) {
        EXPECT_NE(lab.run(std::string("-l -wbf ") + name).text().find("its size is 1."),
                  std::string::npos)
            << name;
    }
    lab.firmware().files().change_directory("\\a");
    std::filesystem::copy_file(lab.folder() / "spilist.bin", lab.folder() / "a" / "spilist.bin");
    EXPECT_EQ(lab.run("-l -wbf b\\deep.bin").status, EFI_SUCCESS);
    EXPECT_EQ(lab.run("-l -wbf top.bin").status, EFI_UNSUPPORTED);
    EXPECT_EQ(lab.run("-l -wbf fs1:\\top.bin").status, EFI_UNSUPPORTED);
}

} // namespace
