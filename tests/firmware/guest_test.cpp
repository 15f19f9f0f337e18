// What only a guest can show.
#include "guest.h"
#include "support/input_error.h"
#include "tests/lab.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using namespace firmware;

/// A machine, and a volume with the program.
struct Guest : testing::Test {
    Guest() {
        add_program(volume, kX64);
        volume["spilist.bin"] = lab::shipped_chip_list();
    }
    emulator::Adapter& adapter(std::uint16_t device, std::uint8_t revision = 0) {
        return machine.add(*emulator::find_adapter_model(0x1E5D, device), {0, 2, 0}, revision);
    }
    emulator::SpiChip& chip(std::uint16_t device) {
        return machine.add_spi_chip(adapter(device), *emulator::find_spi_part("W25X40"),
                                    emulator::kNeverBusy);
    }
    void run(const std::string& lines, const Operator& at_console) {
        const auto bridge = emulator::make_bridge(kX64.guest, machine);
        serial =
            run_guest(kX64, *bridge, volume, "fs0:\r\n" + lines + "\r\nreset -s\r\n", at_console);
        EXPECT_EQ(machine.journal().misuses(), std::vector<std::string>{});
    }
    bool prints(const std::string& text) const { return serial.find(text) != text.npos; }

    const emulator::SteadyClock clock;
    emulator::Machine machine{clock};
    lab::Files volume;
    std::string serial;
};

TEST_F(Guest, CtrlCStopsATransferBetweenBlocks) {
    auto& spi = chip(0xC705);
    std::ranges::fill(spi.contents(), std::uint8_t{0});
    const auto image = lab::pattern(0x10000);
    volume["image.bin"] = image;
    run("qfu -wbf image.bin -addr 0 -y", [](const std::string& line) {
        // The line with the erase progress ends when programming starts.
        return line.find("Erase block") == line.npos ? "" : "\x03reset -s\r";
    });
    EXPECT_TRUE(prints("Erase block 0000f000") && !prints("successful") && !prints("fail!!"));
    EXPECT_EQ(spi.contents()[0x10000], 0);
    const std::uint64_t programmed = spi.count(emulator::Operation::kProgram);
    EXPECT_LT(programmed, image.size());
    EXPECT_EQ(programmed % 4096, 0U);
    EXPECT_EQ(std::memcmp(image.data(), spi.contents().data(), programmed), 0);
}

TEST_F(Guest, AKeyEndsAnEndlessLoopbackAndSoDoesCtrlC) {
    chip(0xC70A);
    run("qfu -phytest -p 3 -lback", [](const std::string& line) {
        return line.find("PHY test PRBS7") == line.npos ? ""
               : line.find("6 Gb/s") == line.npos       ? "k"
                                                        : "\x03reset -s\r";
    });
    for (const std::string rate : {"1.5", "3", "6"}) {
        EXPECT_TRUE(prints("*Phy test successfully on Port 3 at Link Rate " + rate + "Gb/s."))
            << serial;
    }
}

TEST_F(Guest, TheShellShowsTheManualAndRunsTheScriptOfParameters) {
    machine.add_nor_chip(adapter(0xC703, 0xA1), *emulator::find_nor_part(0x22CB00C2),
                         emulator::kNeverBusy);
    run("qfu -? >a manual\r\nqfu -getparm p.nsh -adid 0\r\n"
        "p.nsh\r\necho %ADCount% %DevId% %RevId% %FlashSize%",
        {});
    const lab::Bytes& bytes = volume.at("manual");
    const std::string manual(bytes.begin(), bytes.end());
    for (const char* part : {"Programs, dumps and erases the flash",
                             "-wpa:     wipe out whole chip.", "-erctn, --error continue."}) {
        EXPECT_NE(manual.find(part), std::string::npos) << manual;
    }
    EXPECT_TRUE(prints("1 C703 A1 0x800000")) << serial;
}

TEST(Launcher, SaysWhatIsMissing) {
    const emulator::SteadyClock clock;
    emulator::Machine machine(clock);
    emulator::GuestKind no_qemu = emulator::kX64Guest;
    no_qemu.qemu = "qemu-none";
    emulator::GuestKind no_firmware = emulator::kAArch64Guest;
    no_firmware.firmware = "/none.fd";
    const auto expect = [&](const emulator::GuestSetup& setup, const std::string& complaint) {
        const auto bridge = emulator::make_bridge(*setup.kind, machine);
        try {
            emulator::start_guest(setup, *bridge, STDIN_FILENO, STDOUT_FILENO);
            ADD_FAILURE() << "started without: " << complaint;
        } catch (const support::InputError& error) {
            EXPECT_EQ(error.what(), complaint);
        }
    };
    expect({&no_qemu, {}, {}, {}}, "qemu-none: No such file or directory; it comes with the "
                                   "packages qemu-system-x86 and ovmf");
    expect({&no_firmware, {}, {}, {}}, "/none.fd: no file that can be read; it comes with the "
                                       "packages qemu-system-arm and qemu-efi-aarch64");
    expect({&emulator::kAArch64Guest, {{emulator::Drive::Kind::kStick, "x"}}, {}, {}},
           "x: this guest has no USB; it takes disks and CDs");
}

} // namespace
