#include "guest.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace firmware {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kTimeLimit{240};

std::string build_folder(const Platform& platform) {
    return QFU_BUILD_DIR "/" + std::string(platform.build);
}

/// QEMU with its serial console on pipes, and a thread that serves its adapters. Firmware writes
/// byte by byte; a socket is full after 300 of them, and firmware then drops what it cannot write
/// in time.
class Qemu {
  public:
    Qemu(const emulator::GuestSetup& setup, emulator::GuestBridge& bridge) : bridge_(bridge) {
        std::array<int, 2> keys{};
        std::array<int, 2> console{};
        if (pipe2(keys.data(), O_CLOEXEC) != 0 || pipe2(console.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipes for QEMU");
        }
        process_ = emulator::start_guest(setup, bridge, keys[0], console[1]);
        close(keys[0]);
        close(console[1]);
        keys_ = keys[1];
        console_ = console[0];
        hardware_ = std::thread([&bridge] { bridge.serve(); });
    }
    ~Qemu() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
        close(console_);
        close(keys_);
        bridge_.stop();
        hardware_.join();
    }

    /// Passes the console's lines to its operator until QEMU ends.
    std::string watch(const Operator& at_console) {
        const auto end = std::chrono::steady_clock::now() + kTimeLimit;
        std::string serial;
        std::size_t line = 0;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            pollfd output{console_, POLLIN, 0};
            if (left.count() <= 0 || poll(&output, 1, static_cast<int>(left.count())) == 0) {
                throw std::runtime_error("the guest did not power off in time:\n" + serial);
            }
            std::array<char, 4096> buffer{};
            const ssize_t got = read(console_, buffer.data(), buffer.size());
            if (got <= 0) {
                return serial;
            }
            serial.append(buffer.data(), static_cast<std::size_t>(got));
            if (!started_ && serial.find("any other key to continue") != serial.npos) {
                started_ = true;
                press(" "); // spares the shell's count-down before its start-up script
            }
            for (std::size_t lf = 0; (lf = serial.find('\n', line)) != serial.npos; line = lf + 1) {
                const std::string keys =
                    at_console ? at_console(serial.substr(line, lf - line)) : "";
                if (keys == kPullThePlug) {
                    kill(process_, SIGKILL);
                } else {
                    press(keys);
                }
            }
        }
    }

  private:
    void press(const std::string& keys) const {
        if (!keys.empty() && write(keys_, keys.data(), keys.size()) < 0) {
            throw std::runtime_error("the guest takes no keys");
        }
    }

    emulator::GuestBridge& bridge_;
    pid_t process_ = -1;
    int console_ = -1; ///< the end to read from
    int keys_ = -1;    ///< the end to write to
    bool started_ = false;
    std::thread hardware_;
};

} // namespace

void shell(const fs::path& folder, const std::string& command) {
    const std::string line = "cd '" + folder.string() + "' && (" + command + ") >/dev/null";
    if (std::system(line.c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

const Platform& platform_named(std::string_view name) {
    static constexpr Platform kOthers[] = {
        {"clang", "efi-clang", emulator::kX64Guest},
        {"edk2",  "efi-edk2",  emulator::kX64Guest}
    };
    for (const Platform* platform : {&kX64, &kAArch64, &kOthers[0], &kOthers[1]}) {
        if (platform->name == name) {
            return *platform;
        }
    }
    throw std::runtime_error("there is no platform " + std::string(name));
}

std::string run_guest(const Platform& platform, emulator::GuestBridge& bridge, lab::Files& volume,
                      const std::string& script, const Operator& at_console) {
    volume["startup.nsh"].assign(script.begin(), script.end());
    const lab::ScratchFolder scratch;
    for (const auto& [name, bytes] : volume) {
        scratch.write("in/" + name, bytes);
    }
    // Debian leaves /usr/sbin out of a plain user's path.
    shell(scratch.path(), "export PATH=$PATH:/usr/sbin; truncate -s 64M volume.img && "
                          "mkfs.vfat -F 32 volume.img && mcopy -s -i volume.img in/* ::/");

    const std::string image = (scratch.path() / "volume.img").string();
    emulator::GuestSetup setup{&platform.guest, {{emulator::Drive::Kind::kDisk, image}}, {}, {}};
    if (!platform.guest.driver) {
        // The shell's count-down takes a second with any key. Firmware of AArch64 crashes when QEMU
        // hands over the shell.
        shell(scratch.path(), "UEFIExtract " + std::string(platform.guest.firmware) +
                                  " 7C04A583-9E3E-4F1C-AD65-E05268D0B4D1 -o shell -m body -t 10");
        const std::string shell_file = (scratch.path() / "shell/body.bin").string();
        setup.further = {"-kernel", shell_file, "-append", "-delay 0"};
    }
    std::string serial = Qemu(setup, bridge).watch(at_console);
    shell(scratch.path(), "mkdir out && mcopy -s -n -i volume.img '::/*' out/");
    volume = lab::read_files(scratch.path() / "out");
    return serial;
}

std::string boot_medium(const Platform& platform, emulator::Machine& machine, const fs::path& image,
                        emulator::Drive::Kind medium, const Operator& at_console) {
    const auto bridge = emulator::make_bridge(platform.guest, machine);
    emulator::GuestSetup setup{&platform.guest, {{medium, image.string()}}, {}, {}};
    if (platform.guest.driver) {
        setup.driver = build_folder(platform) + "/bus-driver.efi";
    }
    return Qemu(setup, *bridge).watch(at_console);
}

void add_program(lab::Files& volume, const Platform& platform) {
    const std::string folder = build_folder(platform);
    volume["qfu.efi"] = lab::read_file(folder + "/qfu.efi");
    volume["flash.efi"] = lab::read_file(folder + "/flash.efi");
    volume["qfu.man"] = lab::read_file(QFU_BUILD_DIR "/qfu.man");
    if (volume["qfu.efi"].empty()) {
        throw std::runtime_error(folder + "/qfu.efi is not built");
    }
    if (platform.guest.driver) {
        volume["bus-driver.efi"] = lab::read_file(folder + "/bus-driver.efi");
    }
}

} // namespace firmware
