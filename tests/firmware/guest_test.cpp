// What only a guest can show.
#include "guest.h"
#include "support/input_error.h"
#include "tests/lab.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using namespace firmware;

TEST(Guest, CtrlCStopsATransferBetweenBlocks) {
    const emulator::SteadyClock clock;
    emulator::Machine machine(clock);
    auto& adapter = machine.add(*emulator::find_adapter_model(0x1E5D, 0xC705), {0, 2, 0}, 0);
    auto& chip =
        machine.add_spi_chip(adapter, *emulator::find_spi_part("W25X40"), emulator::kNeverBusy);
    std::ranges::fill(chip.contents(), std::uint8_t{0});
    Volume volume;
    add_program(volume);
    volume["spilist.bin"].bytes = lab::shipped_chip_list();
    volume["image.bin"].bytes = lab::pattern(0x10000);
    const auto break_it = [](const std::string& line) {
        // The line with the erase progress ends when programming starts.
        return line.find("Erase block") == line.npos ? "" : "\x03reset -s\r";
    };
    const GuestResult guest = run_guest(
        machine, volume, "fs0:\r\nqfu -wbf image.bin -addr 0 -y\r\nreset -s\r\n", break_it);
    EXPECT_NE(guest.serial.find("Erase block 0000f000"), std::string::npos);
    EXPECT_EQ(guest.serial.find("successful"), std::string::npos);
    EXPECT_EQ(guest.serial.find("fail!!"), std::string::npos);
    EXPECT_EQ(chip.contents()[0x10000], 0);
    const auto image = lab::pattern(0x10000);
    const std::uint64_t programmed = chip.count(emulator::Operation::kProgram);
    EXPECT_LT(programmed, image.size());
    EXPECT_EQ(programmed % 4096, 0U);
    EXPECT_TRUE(std::equal(image.begin(), image.begin() + static_cast<std::ptrdiff_t>(programmed),
                           chip.contents().begin()));
    EXPECT_EQ(machine.journal().misuses(), std::vector<std::string>{});
}

TEST(Guest, AKeyEndsAnEndlessLoopbackAndSoDoesCtrlC) {
    const emulator::SteadyClock clock;
    emulator::Machine machine(clock);
    auto& adapter = machine.add(*emulator::find_adapter_model(0x1E5D, 0xC70A), {0, 2, 0}, 0);
    machine.add_spi_chip(adapter, *emulator::find_spi_part("W25X40"), emulator::kNeverBusy);
    Volume volume;
    add_program(volume);
    volume["spilist.bin"].bytes = lab::shipped_chip_list();
    const auto press = [](const std::string& line) {
        if (line.find("PHY test PRBS7") == line.npos) {
            return "";
        }
        return line.find("6 Gb/s") == line.npos ? "k" : "\x03reset -s\r";
    };
    const GuestResult guest =
        run_guest(machine, volume, "fs0:\r\nqfu -phytest -p 3 -lback\r\nreset -s\r\n", press);
    for (const char* rate : {"1.5", "3", "6"}) {
        EXPECT_NE(guest.serial.find("*Phy test successfully on Port 3 at Link Rate " +
                                    std::string(rate) + "Gb/s."),
                  std::string::npos)
            << guest.serial;
    }
    EXPECT_EQ(machine.journal().misuses(), std::vector<std::string>{});
}

TEST(Guest, TheShellShowsTheManualAndRunsTheScriptOfParameters) {
    const emulator::SteadyClock clock;
    emulator::Machine machine(clock);
    auto& adapter = machine.add(*emulator::find_adapter_model(0x1E5D, 0xC703), {0, 2, 0}, 0xA1);
    machine.add_nor_chip(adapter, *emulator::find_nor_part(0x22CB00C2), emulator::kNeverBusy);
    Volume volume;
    add_program(volume);
    volume["spilist.bin"].bytes = lab::shipped_chip_list();
    const GuestResult guest = run_guest(machine, volume,
                                        "fs0:\r\nqfu -? >a manual\r\nqfu -getparm p.nsh -adid 0\r\n"
                                        "p.nsh\r\necho %ADCount% %DevId% %RevId% %FlashSize%\r\n"
                                        "reset -s\r\n",
                                        [](const std::string&) { return ""; });
    const std::string manual = guest.volume.at("manual").text();
    EXPECT_NE(manual.find("Programs, dumps and erases the flash"), std::string::npos) << manual;
    EXPECT_NE(manual.find("-wpa:     wipe out whole chip."), std::string::npos) << manual;
    EXPECT_NE(manual.find("-erctn, --error continue."), std::string::npos) << manual;
    EXPECT_NE(guest.serial.find("1 C703 A1 0x800000"), std::string::npos) << guest.serial;
}

TEST(Launcher, SaysWhatIsMissing) {
    const emulator::SteadyClock clock;
    emulator::Machine machine(clock);
    emulator::GuestKind no_qemu = emulator::kX64Guest;
    no_qemu.qemu = "qemu-none";
    emulator::GuestKind no_firmware = emulator::kAArch64Guest;
    no_firmware.firmware = "/none.fd";
    const auto complaint = [&](const emulator::GuestSetup& setup) {
        const auto bridge = emulator::make_bridge(*setup.kind, machine);
        try {
            emulator::start_guest(setup, *bridge, STDIN_FILENO, STDOUT_FILENO);
            return std::string("started");
        } catch (const support::InputError& error) {
            return std::string(error.what());
        }
    };
    EXPECT_EQ(complaint({&no_qemu, {}, {}, {}}), "qemu-none: No such file or directory; it comes "
                                                 "with the packages qemu-system-x86 and ovmf");
    EXPECT_EQ(complaint({&no_firmware, {}, {}, {}}),
              "/none.fd: no file that can be read; it comes with the packages qemu-system-arm and "
              "qemu-efi-aarch64");
    EXPECT_EQ(complaint({&emulator::kAArch64Guest, {{emulator::Drive::Kind::kStick, "x"}}, {}, {}}),
              "x: this guest has no USB; it takes disks and CDs");
}

} // namespace
