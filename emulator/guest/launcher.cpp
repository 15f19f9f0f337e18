#include "launcher.h"

#include "driver_bridge.h"
#include "hardware/hex.h"
#include "qemu_bridge.h"
#include "support/input_error.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace emulator {
namespace {

using Words = std::vector<std::string>;

void append(Words& words, Words more) {
    std::ranges::move(more, std::back_inserter(words));
}

std::string read_file(const std::string& name, const std::string& hint) {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream bytes;
    if (!(bytes << in.rdbuf())) {
        throw support::InputError(name + ": no file that can be read; " + hint);
    }
    return bytes.str();
}

/// A file in memory that QEMU inherits. Nothing of it is left when both processes have ended.
class InheritedFile {
  public:
    explicit InheritedFile(const std::string& bytes) : descriptor_(memfd_create("guest", 0)) {
        if (descriptor_ < 0 ||
            write(descriptor_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            throw std::system_error(errno, std::generic_category(), "memfd_create");
        }
    }
    InheritedFile(InheritedFile&& other) noexcept
        : descriptor_(std::exchange(other.descriptor_, -1)) {}
    ~InheritedFile() { close(descriptor_); }

    std::string name() const { return "/dev/fd/" + std::to_string(descriptor_); }

  private:
    int descriptor_;
};

/// Firmware and its variables as one file, which boots in half the time of two flash chips.
/// Firmware asks at 0xFED40000 for a TPM. A board without one answers with ones. QEMU answers with
/// zeros, and firmware waits for that TPM for 1.5 s, which costs a processor as long. So the file,
/// which ends at 4 GiB, begins there, with ones.
std::string join(const std::string& variables, const std::string& code) {
    constexpr std::uint64_t kTpm = 0xFED40000;
    constexpr std::uint64_t kEnd = 0x100000000;
    return std::string(kEnd - kTpm - variables.size() - code.size(), '\xFF') + variables + code;
}

/// An expansion ROM of the device that the bus driver uses, from which firmware starts that driver
/// before it looks for something to boot.
std::string rom_of(const std::string& driver) {
    constexpr std::size_t kHeader = 0x40;
    constexpr std::size_t kData = 0x1C;
    constexpr std::size_t kBlock = 512;
    const std::size_t blocks = (kHeader + driver.size() + kBlock - 1) / kBlock;
    std::string rom(blocks * kBlock, '\0');
    const auto put = [&](std::size_t at, std::size_t value, int count) {
        for (int i = 0; i < count; ++i) {
            rom[at++] = static_cast<char>(value >> (8 * i));
        }
    };
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
    put(kData + 20, 0x8003, 2); // EFI code, and no further image
    rom.replace(kHeader, driver.size(), driver);
    return rom;
}

/// QEMU reads a comma in a value as the end of the value, unless it stands there twice.
std::string value(const std::string& text) {
    std::string result;
    for (const char c : text) {
        result += c == ',' ? ",," : std::string(1, c);
    }
    return result;
}

Words words_of(const Drive& drive, const GuestKind& kind, std::size_t number) {
    const std::string id = "drive" + std::to_string(number);
    const bool cd = drive.kind == Drive::Kind::kCd;
    std::string device;
    // Controllers get slots at the end of bus 0, where the program looks for no adapter.
    const std::string slot = "addr=0x" + hex(0x1E - number, 2);
    Words words;
    if (drive.kind == Drive::Kind::kStick) {
        if (kind.driver) {
            // The adapters are where USB controllers would have their registers.
            throw support::InputError(drive.image +
                                      ": this guest has no USB; it takes disks and CDs");
        }
        words = {"-device", "qemu-xhci,id=bus" + id + "," + slot};
        device = "usb-storage,bus=bus" + id + ".0";
    } else if (!kind.driver) {
        device = (cd ? "ide-cd,bus=ide." : "ide-hd,bus=ide.") + std::to_string(number);
    } else if (cd) {
        words = {"-device", "virtio-scsi-pci,id=bus" + id + "," + slot}; // firmware knows no SATA
        device = "scsi-cd,bus=bus" + id + ".0";
    } else {
        device = "virtio-blk-pci," + slot;
    }
    append(words, {"-drive",
                   "if=none,format=raw,id=" + id + (cd ? ",media=cdrom,readonly=on" : "") +
                       ",file=" + value(drive.image),
                   "-device", device + ",drive=" + id});
    return words;
}

/// @param inherited  takes the files that QEMU inherits
Words command_line(const GuestSetup& setup, const GuestBridge& bridge, bool terminal,
                   std::vector<InheritedFile>& inherited) {
    const GuestKind& kind = *setup.kind;
    Words words{std::string(kind.qemu), "-accel", "tcg", "-machine", std::string(kind.machine)};
    std::istringstream settings{std::string(kind.settings)};
    for (std::string word; settings >> word;) {
        words.push_back(word);
    }
    // Ctrl-C and the like go to the guest, not to QEMU.
    append(words, {"-nodefaults", "-display", "none", "-no-reboot", "-serial",
                   terminal ? "mon:stdio" : "stdio"});

    const std::string packages = "it comes with the packages " + std::string(kind.packages);
    const std::string code = read_file(std::string(kind.firmware), packages);
    if (kind.secure_boot) {
        const std::string flash = "if=pflash,format=raw,file=";
        append(words,
               {"-machine", "smm=on", "-global", "driver=cfi.pflash01,property=secure,value=on",
                "-drive", flash + std::string(kind.firmware) + ",readonly=on", "-drive",
                flash + std::string(kind.variables) + ",snapshot=on"});
    } else if (kind.variables.empty()) {
        append(words, {"-bios", std::string(kind.firmware)});
    } else {
        inherited.emplace_back(join(read_file(std::string(kind.variables), packages), code));
        append(words, {"-bios", inherited.back().name()});
    }
    if (!setup.driver.empty()) {
        inherited.emplace_back(
            rom_of(read_file(setup.driver, "cmake --build --preset efi-aarch64 makes it")));
        append(words, {"-global", "ivshmem-doorbell.romfile=" + inherited.back().name()});
    }
    append(words, bridge.arguments());
    for (std::size_t i = 0; i < setup.drives.size(); ++i) {
        append(words, words_of(setup.drives[i], kind, i));
    }
    append(words, setup.further);
    return words;
}

/// @returns what went wrong, or 0
int start(const Words& words, int input, int output, pid_t& process) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    // QEMU's end of the pipe closes when QEMU runs.
    std::array<int, 2> report{};
    if (pipe2(report.data(), O_CLOEXEC) != 0) {
        return errno;
    }
    process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM); // without its adapters the guest is of no use
        dup2(input, STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        execvp(arguments[0], arguments.data());
        const int error = errno;
        _exit(write(report[1], &error, sizeof error) == sizeof error ? 0 : 1);
    }
    int error = process < 0 ? errno : 0;
    close(report[1]);
    if (process > 0 && read(report[0], &error, sizeof error) > 0) {
        waitpid(process, nullptr, 0);
    }
    close(report[0]);
    return error;
}

} // namespace

std::unique_ptr<GuestBridge> make_bridge(const GuestKind& kind, Machine& machine) {
    if (kind.driver) {
        return std::make_unique<DriverBridge>(machine);
    }
    return std::make_unique<QemuBridge>(machine);
}

pid_t start_guest(const GuestSetup& setup, GuestBridge& bridge, int input, int output) {
    std::vector<InheritedFile> inherited;
    const Words words = command_line(setup, bridge, isatty(input) != 0, inherited);
    pid_t process = -1;
    if (const int error = start(words, input, output, process)) {
        throw support::InputError(words.front() + ": " + std::strerror(error) +
                                  "; it comes with the packages " +
                                  std::string(setup.kind->packages));
    }
    bridge.handed_over();
    return process;
}

} // namespace emulator
