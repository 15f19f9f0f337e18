#include "guest.h"

#include "guest/driver_bridge.h"
#include "qemu_bridge.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace firmware {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kTimeLimit{240};
constexpr char kImage[] = "volume.img";

void make_volume(const fs::path& folder, const Volume& volume) {
    // Debian leaves /usr/sbin out of a plain user's path.
    shell(folder, std::string("truncate -s 64M ") + kImage +
                      " && PATH=$PATH:/usr/sbin mkfs.vfat -F 32 " + kImage);
    fs::create_directory(folder / "in");
    for (const auto& [name, file] : volume) {
        if (file.folder) {
            fs::create_directories(folder / "in" / name);
            continue;
        }
        std::ofstream out(folder / "in" / name, std::ios::binary);
        out.write(reinterpret_cast<const char*>(file.bytes.data()),
                  static_cast<std::streamsize>(file.bytes.size()));
    }
    shell(folder, std::string("mcopy -s -i ") + kImage + " in/* ::/");
    for (const auto& [name, file] : volume) {
        if (file.read_only) {
            shell(folder, std::string("mattrib -i ") + kImage + " +r '::/" + name + "'");
        }
    }
}

Volume read_volume(const fs::path& folder) {
    fs::create_directory(folder / "out");
    shell(folder, std::string("mcopy -s -n -i ") + kImage + " '::/*' out/");
    Volume volume;
    for (const auto& entry : fs::recursive_directory_iterator(folder / "out")) {
        const std::string name = fs::relative(entry.path(), folder / "out").string();
        volume[name] = {entry.is_directory() ? std::vector<std::uint8_t>{}
                                             : read_bytes(entry.path()),
                        false, entry.is_directory()};
    }
    return volume;
}

/// The file that QEMU takes as firmware. What firmware writes into its store of variables is gone
/// when the guest ends.
std::string firmware_of(const Platform& platform, const fs::path& folder) {
    if (platform.code != kX64.code) {
        return platform.code;
    }
    shell(folder, QFU_SOURCE_DIR "/scripts/guest-firmware firmware.fd");
    return (folder / "firmware.fd").string();
}

/// QEMU with its serial console on a pair of pipes.
class Qemu {
  public:
    Qemu(const fs::path& folder, const Platform& platform,
         const std::vector<std::string>& devices) {
        std::vector<std::string> command = platform.qemu;
        command.insert(command.end(), {"-accel", "tcg", "-nodefaults", "-display", "none", "-net",
                                       "none", "-monitor", "none", "-serial", "stdio", "-no-reboot",
                                       "-bios", firmware_of(platform, folder)});
        command.insert(command.end(), devices.begin(), devices.end());
        start(command);
    }
    Qemu(const Qemu&) = delete;
    Qemu& operator=(const Qemu&) = delete;
    ~Qemu() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
        close(to_);
        close(from_);
    }

    /// Passes the console's lines to its operator until QEMU ends.
    std::string watch(const Operator& at_console) {
        const auto end = std::chrono::steady_clock::now() + kTimeLimit;
        std::string serial;
        std::size_t line = 0;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            pollfd output{from_, POLLIN, 0};
            if (left.count() <= 0 || poll(&output, 1, static_cast<int>(left.count())) == 0) {
                throw std::runtime_error("the guest did not power off in time:\n" + serial);
            }
            std::array<char, 4096> buffer{};
            const ssize_t got = read(from_, buffer.data(), buffer.size());
            if (got <= 0) {
                return serial;
            }
            serial.append(buffer.data(), static_cast<std::size_t>(got));
            if (!started_ && serial.find("any other key to continue") != serial.npos) {
                started_ = true;
                press(" "); // spares the shell's count-down before its start-up script
            }
            for (std::size_t lf = 0; (lf = serial.find('\n', line)) != serial.npos; line = lf + 1) {
                const std::string keys = at_console(serial.substr(line, lf - line));
                if (keys == kPullThePlug) {
                    kill(process_, SIGKILL);
                } else {
                    press(keys);
                }
            }
        }
    }

  private:
    void start(const std::vector<std::string>& command) {
        std::array<int, 2> input{};
        std::array<int, 2> output{};
        if (pipe(input.data()) != 0 || pipe(output.data()) != 0) {
            throw std::runtime_error("no pipes for QEMU");
        }
        std::vector<char*> arguments;
        arguments.reserve(command.size() + 1);
        for (const std::string& word : command) {
            arguments.push_back(const_cast<char*>(word.c_str()));
        }
        arguments.push_back(nullptr);
        process_ = fork();
        if (process_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // nobody reads the console any more
            dup2(input[0], STDIN_FILENO);
            dup2(output[1], STDOUT_FILENO);
            close(input[1]);
            close(output[0]);
            execvp(arguments[0], arguments.data());
            _exit(127);
        }
        close(input[0]);
        close(output[1]);
        to_ = input[1];
        from_ = output[0];
    }

    void press(const std::string& keys) const {
        if (!keys.empty() && write(to_, keys.data(), keys.size()) < 0) {
            throw std::runtime_error("the guest takes no keys");
        }
    }

    pid_t process_ = -1;
    int to_ = -1;
    int from_ = -1;
    bool started_ = false;
};

const std::vector<std::string> kQ35 = {"qemu-system-x86_64",
                                       "-machine",
                                       "q35,memory-backend=m0",
                                       "-m",
                                       "256",
                                       "-object",
                                       "memory-backend-memfd,id=m0,size=256M,share=on",
                                       "-vga",
                                       "none"};
// Without a boot menu of QEMU's this firmware waits 5 s for a key.
const std::vector<std::string> kVirt = {"qemu-system-aarch64",  "-machine", "virt", "-cpu",
                                        "cortex-a57",           "-m",       "512",  "-boot",
                                        "menu=on,splash-time=0"};

/// An expansion ROM of the device behind the bus driver, out of which firmware starts that driver
/// before it looks for something to boot.
void write_driver_rom(const fs::path& driver, const fs::path& rom) {
    constexpr std::size_t kHeader = 0x40;
    constexpr std::size_t kBlock = 512;
    const std::vector<std::uint8_t> image = read_bytes(driver);
    std::vector<std::uint8_t> bytes(kHeader);
    const auto put = [&](std::size_t at, std::size_t value, int count) {
        for (int i = 0; i < count; ++i) {
            bytes[at++] = static_cast<std::uint8_t>(value >> (8 * i));
        }
    };
    const std::size_t blocks = (kHeader + image.size() + kBlock - 1) / kBlock;
    constexpr std::size_t kData = 0x1C;
    put(0, 0xAA55, 2);
    put(2, blocks, 2);
    put(4, 0x0EF1, 4); // an EFI image
    put(8, 0x0B, 2);   // a driver
    put(10, 0xAA64, 2);
    put(0x16, kHeader, 2);
    put(0x18, kData, 2);
    put(kData, 0x52494350, 4); // "PCIR"
    put(kData + 4, 0x11101AF4, 4);
    put(kData + 10, 0x18, 2);
    put(kData + 16, blocks, 2);
    put(kData + 20, 0x8003, 2); // EFI code, and no image behind it
    bytes.insert(bytes.end(), image.begin(), image.end());
    bytes.resize(blocks * kBlock);
    std::ofstream(rom, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

/// Boots a guest with adapters behind the bridge and the devices to boot from, and waits for its
/// end.
std::string run(const fs::path& folder, const Platform& platform, emulator::GuestBridge& bridge,
                const std::vector<std::string>& boot_devices, const Operator& at_console) {
    std::vector<std::string> devices = bridge.arguments();
    devices.insert(devices.end(), boot_devices.begin(), boot_devices.end());
    Qemu qemu(folder, platform, devices);
    bridge.handed_over();
    std::thread hardware([&] { bridge.serve(); });
    std::string serial;
    try {
        serial = qemu.watch(at_console);
    } catch (...) {
        bridge.stop();
        hardware.join();
        throw;
    }
    hardware.join();
    return serial;
}

} // namespace

void shell(const fs::path& folder, const std::string& command) {
    const std::string line = "cd '" + folder.string() + "' && (" + command + ") >/dev/null";
    if (std::system(line.c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

const Platform kX64{"x64", "efi", "/usr/share/OVMF/OVMF_CODE_4M.fd", kQ35, "ide-hd", false};
const Platform kX64Clang{"clang", "efi-clang", kX64.code, kQ35, kX64.disk, false};
const Platform kX64Edk2{"edk2", "efi-edk2", kX64.code, kQ35, kX64.disk, false};
// The disk sits where the program looks for no adapter.
const Platform kAArch64{
    "aarch64", "efi-aarch64", "/usr/share/AAVMF/AAVMF_CODE.fd", kVirt, "virtio-blk-pci,addr=0x1e",
    true};

const Platform& platform_named(const std::string& name) {
    for (const Platform* platform : {&kX64, &kX64Clang, &kX64Edk2, &kAArch64}) {
        if (platform->name == name) {
            return *platform;
        }
    }
    throw std::runtime_error("there is no platform " + name);
}

std::vector<std::uint8_t> read_bytes(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

GuestResult run_guest(const Platform& platform, emulator::GuestBridge& bridge, const Volume& volume,
                      const std::string& script, const Operator& at_console) {
    const ScratchFolder scratch;
    Volume with_script = volume;
    with_script["startup.nsh"].bytes.assign(script.begin(), script.end());
    make_volume(scratch.path(), with_script);

    std::vector<std::string> devices = {
        "-drive", "if=none,id=volume,format=raw,file=" + (scratch.path() / kImage).string(),
        "-device", platform.disk + ",drive=volume"};
    if (!platform.driver) {
        // The shell's count-down takes a second with any key. Firmware of AArch64 crashes when QEMU
        // hands over the shell.
        const std::string shell_file = (scratch.path() / "shell.efi").string();
        shell(QFU_SOURCE_DIR, "scripts/cut-shell " + platform.code + " >'" + shell_file + "'");
        devices.insert(devices.end(), {"-kernel", shell_file, "-append", "-delay 0"});
    }
    GuestResult result;
    result.serial = run(scratch.path(), platform, bridge, devices, at_console);
    result.volume = read_volume(scratch.path());
    return result;
}

GuestResult run_guest(emulator::Machine& machine, const Volume& volume, const std::string& script,
                      const Operator& at_console) {
    emulator::QemuBridge bridge(machine);
    return run_guest(kX64, bridge, volume, script, at_console);
}

std::string boot_medium(const Platform& platform, emulator::Machine& machine, const fs::path& image,
                        Medium medium, const Operator& at_console) {
    const ScratchFolder scratch;
    std::string drive = "if=none,id=medium,format=raw,file=" + image.string();
    // At a slot that no adapter of the tests has.
    std::vector<std::string> devices = {"qemu-xhci,addr=0x18", "usb-storage,drive=medium"};
    std::unique_ptr<emulator::GuestBridge> bridge;
    if (medium == Medium::kCd) {
        drive += ",media=cdrom,readonly=on";
        devices = {"ahci,id=sata,addr=0x18", "ide-cd,drive=medium,bus=sata.0"};
    }
    if (platform.driver) {
        // Its firmware knows no SATA, and the adapters are where USB controllers have their
        // registers.
        devices = {"virtio-scsi-pci,addr=0x18", "scsi-cd,drive=medium"};
        bridge = std::make_unique<emulator::DriverBridge>(machine);
    } else {
        bridge = std::make_unique<emulator::QemuBridge>(machine);
    }
    std::vector<std::string> words = {"-drive",   drive,     "-device",
                                      devices[0], "-device", devices[1]};
    if (platform.driver) {
        const fs::path rom = scratch.path() / "driver.rom";
        write_driver_rom(QFU_BUILD_DIR "/" + platform.build + "/bus-driver.efi", rom);
        words.insert(words.end(), {"-global", "ivshmem-doorbell.romfile=" + rom.string()});
    }
    return run(scratch.path(), platform, *bridge, words, at_console);
}

void add_program(Volume& volume, const Platform& platform) {
    const std::string folder = QFU_BUILD_DIR "/" + platform.build;
    volume["qfu.efi"].bytes = read_bytes(folder + "/qfu.efi");
    volume["qfu.man"].bytes = read_bytes(QFU_BUILD_DIR "/qfu.man");
    if (volume["qfu.efi"].bytes.empty()) {
        throw std::runtime_error(folder + "/qfu.efi is not built");
    }
    if (platform.driver) {
        volume["bus-driver.efi"].bytes = read_bytes(folder + "/bus-driver.efi");
    }
}

} // namespace firmware
