// The shell scripts that go beside the program, under the real shell.
#include "guest.h"
#include "machine/machine_file.h"
#include "tests/lab.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <set>

namespace {

using namespace firmware;

/// A volume with the tools in a folder of their own, whose name the shell must quote, and an empty
/// folder to work in.
lab::Files volume_with_tools() {
    lab::Files built;
    add_program(built, kX64);
    lab::Files volume;
    volume["my tools/"] = {};
    volume["work/"] = {};
    volume["my tools/qfu.efi"] = built["qfu.efi"];
    volume["my tools/spilist.bin"] = lab::shipped_chip_list();
    volume["my tools/lib/"] = {};
    for (const char* script :
         {"flash.nsh", "verify.nsh", "backup.nsh", "lib/flash.nsh", "lib/verify.nsh",
          "lib/backup.nsh", "lib/prepare.nsh", "lib/finish.nsh"}) {
        volume["my tools/" + std::string(script)] =
            lab::read_file(QFU_SCRIPTS "/" + std::string(script));
    }
    return volume;
}

/// What a guest's scripts left: the exit status of each line, and the files in its folder.
struct Scripts {
    std::string serial;
    lab::Files volume;
    std::vector<std::string> statuses;
    std::set<std::string> files;

    const std::vector<std::uint8_t>& file(const std::string& name) {
        return volume["work/" + name];
    }
    bool prints(const std::string& text) const { return serial.find(text) != std::string::npos; }
};

/// Runs each line in the folder "work" and gives the next of `answers` at each question.
Scripts run_lines(emulator::Machine& machine, lab::Files volume,
                  const std::vector<std::string>& lines, std::string answers = "") {
    std::string script = "@echo -off\r\nfs0:\r\ncd work\r\n";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        script += lines[i] + "\r\necho %lasterror% >a fs0:\\status" + std::to_string(i) + "\r\n";
    }
    const auto confirm = [&answers](const std::string& line) {
        const bool asks = line.find("Press \"Y\"") != line.npos;
        std::string key = answers.substr(0, asks ? 1 : 0);
        answers.erase(0, key.size());
        return key;
    };
    const auto bridge = emulator::make_bridge(kX64.guest, machine);
    Scripts scripts;
    scripts.serial = run_guest(kX64, *bridge, volume, script + "reset -s\r\n", confirm);
    scripts.volume = volume;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const lab::Bytes bytes = scripts.volume["status" + std::to_string(i)];
        const std::string status(bytes.begin(), bytes.end());
        scripts.statuses.push_back(status.substr(0, status.find('\r')));
    }
    for (const auto& [name, file] : scripts.volume) {
        if (name.starts_with("work/") && name != "work/") {
            scripts.files.insert(name.substr(5));
        }
    }
    return scripts;
}

struct Case {
    std::string line;
    std::string status;
    std::string says;
};

const std::string kFlash = "\"..\\my tools\\flash\" ";
const std::string kVerify = "\"..\\my tools\\verify\" ";

/// Two adapters, and images to write into them. The first reads bit 1 of the four bytes at 0x1028
/// wrong.
struct FlashScripts : testing::Test {
    FlashScripts() {
        auto description =
            emulator::load_machine_file(QFU_SOURCE_DIR "/emulator/machines/faulty.toml");
        description.adapters[0].spi->image.clear();
        machine = emulator::build_machine(description, clock, images);
        auto& second = machine->add(*emulator::find_adapter_model(0x1E5D, 0xC709), {0, 3, 0}, 0);
        machine->add_spi_chip(second, *emulator::find_spi_part("GD25Q16"), {});
        before = lab::pattern(flash(0).size(), 7);
        std::ranges::copy(before, flash(0).begin());
        std::ranges::copy(before, flash(1).begin());
        volume["work/image.bin"] = volume["work/a b.bin"] = image;
        volume["work/none.bin"] = {};
        volume["zeros.bin"] = std::vector<std::uint8_t>(64, 0);
    }

    std::span<std::uint8_t> flash(std::size_t i) const {
        return machine->adapter(i).spi().chip()->contents();
    }

    /// Runs the cases in one guest and looks at what each says.
    void run(const std::vector<Case>& cases, const std::string& answers) {
        std::vector<std::string> lines(cases.size());
        std::ranges::transform(cases, lines.begin(), &Case::line);
        done = run_lines(*machine, volume, lines, answers);
        for (std::size_t i = 0; i < cases.size(); ++i) {
            EXPECT_EQ(done.statuses[i], cases[i].status) << cases[i].line;
            EXPECT_TRUE(done.prints(cases[i].says)) << cases[i].says;
        }
        EXPECT_EQ(machine->journal().misuses(), std::vector<std::string>{});
    }

    emulator::SteadyClock clock;
    emulator::ImageFiles images;
    std::unique_ptr<emulator::Machine> machine;
    std::vector<std::uint8_t> before;
    std::vector<std::uint8_t> image = lab::pattern(600);
    lab::Files volume = volume_with_tools();
    Scripts done;
};

TEST_F(FlashScripts, SayWhetherTheFlashHoldsTheImage) {
    // Names that are taken, so that each digit of the next one has to be looked for.
    for (const char* taken : {"old099", "old109", "old110", "new111"}) {
        volume["work/image.bin." + std::string(taken)] = {1};
    }
    run(
        {
            {kFlash + "image.bin 0x2000 1",                  "0x2", "flash: skipped. Nothing was written."   },
            {kFlash + "image.bin 0x2000 1",                  "0x0",
             "flash: done. The flash holds image.bin; it held image.bin.old112 before."                      },
            {kFlash + "image.bin 0x2000 1",                  "0x0", "done. The flash held image.bin already."},
            {kVerify + "image.bin 0x2000 0 -cdid c709",      "0x0", "The flash holds image.bin at"           },
            {kVerify + "image.bin 0x2001 1",                 "0x1", "The flash does not hold image.bin at"   },
            {kFlash + "fs0:\\zeros.bin 0x1000 0 -y -csid 1", "0x1",
             "flash: FAILED. The flash holds fs0:\\zeros.bin.new000, not fs0:\\zeros.bin; it held "
             "fs0:\\zeros.bin.old000 before."                                                                }
    },
        "ny");
    EXPECT_TRUE(done.prints("flash: adapter 1, VenId=1e5d, DevId=c709, ClassCode=1040000, 2 ports "
                            "[Bus=0, Dev=3, Fun=0]\r\nflash: chip cs1:SPI FLASH Chip Whole "
                            "Size=200000, ID[C8 40 15]."));
    EXPECT_TRUE(std::ranges::equal(done.file("image.bin.old112"),
                                   std::span(before).subspan(0x2000, image.size())));
    std::vector<std::uint8_t> wrong(64, 0);
    std::fill_n(wrong.begin() + 0x28, 4, std::uint8_t{2});
    EXPECT_EQ(done.volume["zeros.bin.new000"], wrong);
    // Only the sector of the image was touched.
    auto expected = before;
    std::fill_n(expected.begin() + 0x2000, 0x1000, 0xFF);
    std::ranges::copy(image, expected.begin() + 0x2000);
    EXPECT_TRUE(std::ranges::equal(flash(1), expected));
    EXPECT_EQ(done.files,
              (std::set<std::string>{"a b.bin", "image.bin", "image.bin.new111", "image.bin.old099",
                                     "image.bin.old109", "image.bin.old110", "image.bin.old112",
                                     "none.bin"}));
}

TEST_F(FlashScripts, LeaveEveryFlashAloneWhenSomethingIsWrong) {
    run(
        {
            {kFlash + "image.bin 0 1 -y -cdid C709", "0x2", "there is no adapter 1; the number of"         },
            {kFlash + "image.bin 0 ALL -y",          "0x2", "the adapter must be a number from 0 to 5."    },
            {kFlash + "image.bin 0x3000",            "0x2", "there are 2 adapters; say which."             },
            {kFlash + "image.bin 0 0 -y -csid 0",    "0x2",
             "adapter 0 has no flash chip that is known"                                                   },
            {kFlash + "image.bin 0x1ffda9 1 -y",     "0x2",
             "image.bin does not fit at address 0x1ffda9"                                                  },
            {kVerify + "image.bin 0x200000 1",       "0x2", "is behind the end of the chip"                },
            {kFlash + "image.bin 0x100002000 1",     "0x2", "address 0x100002000 is behind the end"        },
            {kFlash + "image.bin -y 1",              "0x2", "the address must be a number, such as 0x1000" },
            {kFlash + "image.bin 0 1 -wpa",          "0x2", "the word -wpa cannot stand here; see flash -h"},
            {kFlash + "image.bin 0 1 -y -csid",      "0x2", "the word -csid needs a value."                },
            {kFlash + "image.bin 0 1 \"\" -csid 0",  "0x2", "an empty word stands before -csid."           },
            {kFlash + "zeros.bin",                   "0x2", "zeros.bin is not there."                      },
            {kFlash + "none.bin 0 0",                "0x2", "none.bin is empty."                           },
            {kFlash + "\"a b.bin\" 0 0 -y",          "0x2", "with spaces or wildcards cannot be used."     },
            {kFlash + "-y image.bin",                "0x2", "a name cannot begin with a minus sign"        },
            {kFlash + "-h",                          "0x0", "flash IMAGE [ADDRESS [ADAPTER [OPTION...]]]"  },
            {kVerify,                                "0x2", "Example: verify image.bin 0x1000 0"           },
            {kFlash + "image.bin 0 1",               "0x2", ". Nothing was written."                       }
    },
        "\003"); // Ctrl-C at the question
    EXPECT_TRUE(std::ranges::equal(flash(0), before));
    EXPECT_TRUE(std::ranges::equal(flash(1), before));
    EXPECT_EQ(done.files, (std::set<std::string>{"a b.bin", "image.bin", "none.bin"}));
}

TEST(FlashScript, KeepsTheBackupAndMendsAFlashThatLostPower) {
    const emulator::SteadyClock clock;
    emulator::Machine machine(clock);
    auto& adapter = machine.add(*emulator::find_adapter_model(0x1E5D, 0xC705), {0, 2, 0}, 0);
    auto& chip =
        machine.add_spi_chip(adapter, *emulator::find_spi_part("MX25L512"), emulator::kNeverBusy);
    const auto before = lab::pattern(chip.contents().size(), 3);
    std::ranges::copy(before, chip.contents().begin());
    const auto image = lab::pattern(64);
    lab::Files volume = volume_with_tools();
    volume["work/image.bin"] = image;
    // Power goes for a moment in the access that starts the second erase, and in the next call in
    // the one that addresses the 40th program. So many accesses lie behind the cycle before. A
    // program that is cut may have cleared all its bits; one that never starts clears none.
    machine.journal().listen_to_cycles(
        [&, erases = 0, programs = 0](std::string_view line) mutable {
            constexpr std::uint64_t kToNextErase = 11;
            constexpr std::uint64_t kToNextAddress = 11;
            if (line.ends_with("sector erase")) {
                ++erases;
                programs = 0;
                if (erases == 1) {
                    adapter.add_power_fault(
                        {.nth = adapter.accesses() + kToNextErase, .off_us = 5'000});
                }
            } else if (line.ends_with("program")) {
                ++programs;
                if (erases == 4 && programs == 39) {
                    adapter.add_power_fault(
                        {.nth = adapter.accesses() + kToNextAddress, .off_us = 50'000});
                }
            }
        });

    const std::string to = " 0x2fe0 0 -y -cdid c705";
    const std::string restore = kFlash + "image.bin.old000" + to;
    Scripts done = run_lines(machine, volume, {kFlash + "image.bin" + to, restore, restore});
    EXPECT_EQ(done.statuses, (std::vector<std::string>{"0x1", "0x1", "0x0"}));
    EXPECT_TRUE(done.prints("FAILED. The flash holds image.bin.new000, not image.bin; it held "
                            "image.bin.old000 before."));
    EXPECT_TRUE(done.prints("done. The flash holds image.bin.old000; it held "));
    EXPECT_TRUE(std::ranges::equal(done.file("image.bin.old000"),
                                   std::span(before).subspan(0x2FE0, image.size())));
    auto expected = before;
    std::fill_n(expected.begin() + 0x2000, 0x2000, 0xFF);
    std::copy_n(before.begin() + 0x2FE0, image.size(), expected.begin() + 0x2FE0);
    EXPECT_TRUE(std::ranges::equal(chip.contents(), expected));
    // What goes on where power came back finds bytes that were not erased.
    for (const std::string& misuse : machine.journal().misuses()) {
        EXPECT_TRUE(misuse.ends_with("sets bits")) << misuse;
    }
}

TEST(BackupScript, ReadsTheWholeFlashTwice) {
    const emulator::SteadyClock clock;
    emulator::Machine machine(clock);
    auto& adapter = machine.add(*emulator::find_adapter_model(0x1E5D, 0xC705), {0, 2, 0}, 0);
    auto& chip = machine.add_spi_chip(adapter, *emulator::find_spi_part("MX25L512"), {});
    std::ranges::copy(lab::pattern(chip.contents().size()), chip.contents().begin());
    // No chip answers there, which puts empty lines in front of the list.
    machine.add(*emulator::find_adapter_model(0x1E5D, 0xC717), {0, 4, 0}, 0);
    // The second reading of the second backup.
    chip.faults().add({emulator::FaultKind::kWrongData, emulator::Operation::kRead, 0x70, 4, 1, 1});

    const std::string tool = "\"..\\my tools\\backup\"";
    Scripts done = run_lines(machine, volume_with_tools(),
                             {tool + " all.bin 0", tool + " all.bin 0 -cdid c705",
                              tool + " fs0:\\two.bin 0 -cdid c705", tool + " none.bin 4",
                              tool + " \"a b.bin\" 0", tool});
    EXPECT_EQ(done.statuses, (std::vector<std::string>{"0x0", "0x2", "0x1", "0x2", "0x2", "0x2"}));
    EXPECT_TRUE(done.prints("backup: done. all.bin holds the flash, 0x10000 bytes read twice."));
    EXPECT_TRUE(std::ranges::equal(done.file("all.bin"), chip.contents()));
    EXPECT_TRUE(done.prints("backup: all.bin is there already. Nothing was read."));
    EXPECT_TRUE(done.prints("backup: FAILED. The two readings fs0:\\two.bin and "
                            "fs0:\\two.bin.new differ."));
    EXPECT_TRUE(done.prints(
        "backup: there is no adapter 4; the number of adapters is 2. Nothing was read."));
    EXPECT_TRUE(
        done.prints("backup: a name with spaces or wildcards cannot be used. Nothing was read."));
    EXPECT_TRUE(done.prints("backup FILE [ADAPTER [OPTION...]]"));
    EXPECT_EQ(done.files, std::set<std::string>{"all.bin"});
    EXPECT_EQ(machine.journal().misuses(), std::vector<std::string>{});
}

} // namespace
