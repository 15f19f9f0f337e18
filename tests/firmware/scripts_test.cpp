// The shell scripts that go beside the program, under the real shell.
#include "guest.h"
#include "lab.h"
#include "machine_file.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

namespace {

using namespace firmware;

std::string text_of(const VolumeFile& file) {
    return {file.bytes.begin(), file.bytes.end()};
}

/// A volume with the tools in a folder of their own, whose name the shell must quote, and an empty
/// folder to work in.
Volume volume_with_tools() {
    Volume built;
    add_program(built);
    Volume volume;
    volume["my tools"].folder = true;
    volume["work"].folder = true;
    volume["my tools/qfu.efi"] = built["qfu.efi"];
    volume["my tools/spilist.bin"].bytes = lab::shipped_chip_list();
    for (const char* script : {"flash.nsh", "backup.nsh"}) {
        volume["my tools/" + std::string(script)].bytes =
            read_bytes(QFU_SCRIPTS "/" + std::string(script));
    }
    return volume;
}

/// What a guest's scripts left: the exit status of each line, and the files in its folder.
struct Scripts {
    GuestResult guest;
    std::vector<std::string> statuses;
    std::set<std::string> files;

    const std::vector<std::uint8_t>& file(const std::string& name) {
        return guest.volume["work/" + name].bytes;
    }
    bool prints(const std::string& text) const {
        return guest.serial.find(text) != std::string::npos;
    }
};

/// Runs each line in the folder "work" and presses Y when the program asks.
Scripts run_lines(emulator::Machine& machine, const Volume& volume,
                  const std::vector<std::string>& lines) {
    std::string script = "@echo -off\r\nfs0:\r\ncd work\r\n";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        script += lines[i] + "\r\necho %lasterror% >a fs0:\\status" + std::to_string(i) + "\r\n";
    }
    const auto confirm = [](const std::string& line) {
        return line.find("Press \"Y\"") == line.npos ? "" : "y";
    };
    Scripts scripts{run_guest(machine, volume, script + "reset -s\r\n", confirm), {}, {}};
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string status = text_of(scripts.guest.volume["status" + std::to_string(i)]);
        scripts.statuses.push_back(status.substr(0, status.find('\r')));
    }
    for (const auto& [name, file] : scripts.guest.volume) {
        if (name.starts_with("work/")) {
            scripts.files.insert(name.substr(5));
        }
    }
    return scripts;
}

TEST(FlashScript, SaysWhetherTheFlashHoldsTheImage) {
    const emulator::SteadyClock clock;
    auto description = emulator::load_machine_file(QFU_SOURCE_DIR "/emulator/machines/faulty.toml");
    description.adapters[0].spi->image.clear();
    emulator::ImageFiles images;
    const auto machine = emulator::build_machine(description, clock, images);
    auto& second = machine->add(*emulator::find_adapter_model(0x1E5D, 0xC709), {0, 3, 0}, 0);
    machine->add_spi_chip(second, *emulator::find_spi_part("W25Q16"), {});
    const auto faulty = machine->adapter(0).spi().chip()->contents();
    const auto good = machine->adapter(1).spi().chip()->contents();
    const auto before = lab::pattern(good.size(), 7);
    std::ranges::copy(before, faulty.begin());
    std::ranges::copy(before, good.begin());

    Volume volume = volume_with_tools();
    const auto image = lab::pattern(600);
    volume["work/image.bin"].bytes = image;
    volume["work/a b.bin"].bytes = image;
    volume["work/none.bin"].bytes = {};
    auto zeros = std::vector<std::uint8_t>(64, 0);
    volume["zeros.bin"].bytes = zeros;
    const std::string tool = "\"..\\my tools\\flash\"";
    Scripts done =
        run_lines(*machine, volume,
                  {tool + " image.bin 0x2000 1", tool + " fs0:\\zeros.bin 0x1000 0 -y -csid 1",
                   tool + " image.bin 0x4000 0 -y", tool + " zeros.bin", tool + " none.bin 0 0",
                   tool + " \"a b.bin\" 0 0 -y", "copy ..\\zeros.bin zeros.bin",
                   tool + " zeros.bin 0x4000 5 -y", tool + " zeros.bin 0x4000", tool});
    EXPECT_EQ(done.statuses, (std::vector<std::string>{"0x0", "0x1", "0x2", "0x2", "0x2", "0x2",
                                                       "0x0", "0x2", "0x2", "0x2"}));

    // The first, on the other adapter: written and as it should be.
    EXPECT_TRUE(
        done.prints("flash: done. The flash holds image.bin; it held image.bin.old before."));
    EXPECT_TRUE(std::equal(image.begin(), image.end(), good.begin() + 0x2000));
    EXPECT_TRUE(std::ranges::equal(done.file("image.bin.old"),
                                   std::span(before).subspan(0x2000, image.size())));
    // The second: bit 1 of the four bytes that are read at 0x1028 is inverted.
    EXPECT_TRUE(done.prints("flash: FAILED. The flash holds fs0:\\zeros.bin.new, not "
                            "fs0:\\zeros.bin; it held fs0:\\zeros.bin.old before."));
    std::ranges::fill(std::span(zeros).subspan(0x28, 4), std::uint8_t{2});
    EXPECT_EQ(done.guest.volume["zeros.bin.new"].bytes, zeros);
    // The others write nothing and say why.
    EXPECT_TRUE(done.prints("flash: image.bin.old holds what an earlier run saved. Move it away "
                            "first. Nothing was written."));
    EXPECT_TRUE(done.prints("flash: zeros.bin is not there. Nothing was written."));
    EXPECT_TRUE(done.prints("flash: none.bin is empty. Nothing was written."));
    EXPECT_TRUE(done.prints("flash: a name with spaces cannot be used. Nothing was written."));
    EXPECT_TRUE(done.prints("flash: only 0 of 64 bytes could be saved. Nothing was written."));
    EXPECT_TRUE(done.prints("flash: there are 2 adapters; say which. Nothing was written."));
    EXPECT_TRUE(done.prints("usage: flash IMAGE [ADDRESS [ADAPTER [OPTION...]]]"));
    EXPECT_TRUE(std::equal(good.begin() + 0x3000, good.end(), before.begin() + 0x3000));
    EXPECT_TRUE(std::equal(faulty.begin() + 0x2000, faulty.end(), before.begin() + 0x2000));
    EXPECT_EQ(done.files, (std::set<std::string>{"a b.bin", "image.bin", "image.bin.old",
                                                 "none.bin", "zeros.bin"}));
    EXPECT_EQ(machine->journal().misuses(), std::vector<std::string>{});
}

TEST(BackupScript, ReadsTheWholeFlashTwice) {
    const emulator::SteadyClock clock;
    emulator::Machine machine(clock);
    auto& adapter = machine.add(*emulator::find_adapter_model(0x1E5D, 0xC705), {0, 2, 0}, 0);
    auto& chip = machine.add_spi_chip(adapter, *emulator::find_spi_part("MX25L512"), {});
    std::ranges::copy(lab::pattern(chip.contents().size()), chip.contents().begin());
    auto wrong = lab::fault(emulator::FaultKind::kWrongData, emulator::Operation::kRead, 4);
    wrong.address = 0x70;
    wrong.times = 1;
    wrong.mask = 1;
    chip.faults().add(wrong); // the second reading of the second backup

    const std::string tool = "\"..\\my tools\\backup\"";
    Scripts done = run_lines(machine, volume_with_tools(),
                             {tool + " all.bin", tool + " all.bin 0", tool + " fs0:\\two.bin 0",
                              tool + " none.bin 4", tool + " \"a b.bin\" 0", tool});
    EXPECT_EQ(done.statuses, (std::vector<std::string>{"0x0", "0x2", "0x1", "0x1", "0x2", "0x2"}));
    EXPECT_TRUE(done.prints("backup: done. all.bin holds the flash, 0x10000 bytes read twice."));
    EXPECT_TRUE(std::ranges::equal(done.file("all.bin"), chip.contents()));
    EXPECT_TRUE(done.prints("backup: all.bin is there already. Nothing was read."));
    EXPECT_TRUE(done.prints("backup: FAILED. The two readings fs0:\\two.bin and "
                            "fs0:\\two.bin.new differ."));
    EXPECT_TRUE(done.prints("backup: FAILED. Adapter 4 has no flash chip that is known."));
    EXPECT_TRUE(done.prints("backup: a name with spaces cannot be used. Nothing was read."));
    EXPECT_TRUE(done.prints("usage: backup FILE [ADAPTER [OPTION...]]"));
    EXPECT_EQ(done.files, std::set<std::string>{"all.bin"});
    EXPECT_EQ(machine.journal().misuses(), std::vector<std::string>{});
}

} // namespace
