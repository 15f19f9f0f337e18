// The firmware's and the machine files' own promises, where the program's tests do not show them.
#include "lab.h"
#include "machine_file.h"
#include "support/input_error.h"

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
    const std::string adapter = "[[adapter]]\ndevice = 0xC709\nslot = 2\n";
    const std::string spi = adapter + "[adapter.spi]\npart = \"W25X40\"\n";
    const std::string fault = spi + "[[adapter.spi.fault]]\n";
    const std::string nor = "[[adapter]]\ndevice = 0xC703\nslot = 3\n[adapter.nor]\n";
    const std::string phy = adapter + "[[adapter.phy.fault]]\n";
    const std::string call = "[[firmware_fault]]\ncall = ";
    const std::pair<std::string, std::string> cases[] = {
        {"tim = 1\n",                                                          "1: tim: unknown key \"tim\"; did you mean \"time\"?"           },
        {"time = \"slow\"\n",                                                  "1: time: must be \"typical\" or \"none\""                      },
        {"[[adapter]]\nslot = 2\n",                                            "1: device: is missing"                                         },
        {"[[adapter]]\ndevice = 0xC790\nslot = 2\n",
         "2: device: unknown adapter of vendor 0x1E5D \"0xC790\"; did you mean \"0xC710\"?"                                                    },
        {"[[adapter]]\ndevice = 0xC709\nslot = 32\n",                          "3: slot: must be a number from 0 to 31"                        },
        {"[[adapter]]\ndevice = 0xC709\nslot = 16\n",
         "3: slot: qfu looks at buses 0 to 63, slots 0 to 15 and function 0; an adapter that it "
         "does "
         "not find needs hidden = true"                                                                                                        },
        {adapter + "hidden = true\n",                                          "4: hidden: this adapter is found; qfu looks at buses 0 to "
                                      "63, slots 0 to 15 and function 0"                                  },
        {adapter + adapter,                                                    "6: slot: the adapter of line 1 is there already"               },
        {adapter + "spi = 3\n",                                                "4: spi: must be a table"                                       },
        {adapter + "[adapter.spi]\npart = \"w25x4\"\n",
         "5: part: unknown part \"w25x4\"; did you mean \"W25X40\"?"                                                                           },
        {adapter + "[adapter.spi]\npart = \"flash\"\n",
         "5: part: unknown part \"flash\"; \"qfu-emu list parts\" prints all"                                                                  },
        {spi + "image = \"a\"\n" + nor + "id = 0x22CB00C2\nimage = \"./a\"\n",
         "12: image: is the image of the chip of line 4 too; each chip needs its own"                                                          },
        {fault + "kind = \"no anser\"\n",
         "7: kind: unknown kind of fault \"no anser\"; did you mean \"no answer\"?"                                                            },
        {fault + "kind = \"ignored\"\non = \"reset\"\n",
         "8: on: \"ignored\" has no effect on \"reset\" of such a chip; allowed: \"read id\", "
         "\"write enable\", \"write disable\", \"read status\", \"write status\", \"read\", "
         "\"program\", \"sector erase\", \"block erase\", \"chip erase\", \"query protection\", "
         "\"protect sector\", \"unprotect sector\""                                                                                            },
        {fault + "kind = \"stuck bits\"\non = \"read\"\n",
         "8: on: \"stuck bits\" has no effect on \"read\" of such a chip; allowed: \"program\", "
         "\"sector erase\", \"block erase\", \"chip erase\""                                                                                   },
        {fault + "kind = \"ignored\"\nmask = 1\n",
         "8: mask: \"ignored\" has none; \"stuck bits\" and \"wrong data\" have"                                                               },
        {fault + "kind = \"ignored\"\naddress = 0x80000\n",
         "8: address: is past the end of the chip; the last is 0x7FFFF"                                                                        },
        {fault + "kind = \"ignored\"\non = \"read id\"\naddress = 0\n",
         "9: address: \"read id\" has no address"                                                                                              },
        {phy + "kind = \"noise\"\nport = 0\n",
         "5: kind: unknown kind of PHY fault \"noise\"; known: \"no pass\", \"no lock\", "
         "\"errors\", \"count\""                                                                                                               },
        {phy + "kind = \"errors\"\nport = 2\n",                                "6: port: must be a number from 0 to 1"                         },
        {phy + "kind = \"no lock\"\nport = 1\nvalue = 1\n",
         "7: value: \"no lock\" has none; \"errors\" and \"count\" have"                                                                       },
        {"[[adapter]]\ndevice = 0xC705\nslot = 2\n[adapter.phy]\n",
         "4: phy: this adapter has no PHY test; those of kind 1 have, see \"qfu-emu list "
         "adapters\""                                                                                                                          },
        {adapter + "[adapter.nor]\nid = 0x22CB00C2\n",
         "4: nor: this adapter has no NOR flash; those of kind 2 have, see \"qfu-emu list "
         "adapters\""                                                                                                                          },
        {nor + "id = 0x22CB00C3\n",
         "5: id: unknown part \"0x22CB00C3\"; did you mean \"0x22CB00C2\"?"                                                                    },
        {call + "\"pol\"\n",                                                   "2: call: unknown firmware call \"pol\"; did you mean \"pool\"?"},
        {call + "\"pool\"\n" + call + "\"pool\"\n",                            "4: call: has a fault already, on line 1"                       },
    };
    for (const auto& [text, message] : cases) {
        EXPECT_EQ(complaint(text), "machine.toml:" + message) << text;
    }
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
    EXPECT_TRUE(std::ranges::equal(chip.contents(), lab::pattern(0x80000)));
    EXPECT_EQ(chip.status(), 0x1C);
    EXPECT_FALSE(chip.faults().empty());
    chip.contents()[0] = 0x77;
    NorChip& nor = *machine->adapter(1).nor()->chip();
    EXPECT_TRUE(std::ranges::equal(nor.contents(), lab::pattern(0x400000)));
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
