// Runs QEMU with a machine file's adapters in the guest.
#include "command_line.h"
#include "guest/launcher.h"
#include "machine/machine_file.h"
#include "observe/report.h"
#include "support/input_error.h"
#include "support/version.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace emulator;

struct Options {
    std::string machine;
    std::string log;
    TraceOptions trace;
    GuestSetup guest;
};

volatile std::sig_atomic_t qemu = 0;

/// Chips and logs are complete when only QEMU is stopped, and this program ends after it.
void stop_guest(int /*signal*/) {
    kill(qemu, SIGTERM);
}

/// The files that the log must not replace: what the machine is made of, and the guest's drives.
std::vector<std::filesystem::path> inputs(const Options& options, const ImageFiles& images) {
    constexpr std::string_view kFile = "file=";
    std::vector<std::filesystem::path> files = images.names();
    files.emplace_back(options.machine);
    for (const Drive& drive : options.guest.drives) {
        files.emplace_back(drive.image);
    }
    for (const std::string& word : options.guest.further) {
        files.emplace_back(word);
        const std::size_t name = word.find(kFile);
        if (name != std::string::npos) {
            files.emplace_back(
                word.substr(name + kFile.size(), word.find(',', name) - name - kFile.size()));
        }
    }
    std::erase(files, ""); // "romfile=" names none
    return files;
}

int run(const Options& options) {
    const MachineDescription description = load_machine_file(options.machine);
    if (!description.firmware_faults.empty()) {
        throw support::InputError(options.machine + ":" +
                                  std::to_string(description.firmware_faults.front().line) +
                                  ": a guest's firmware does not fail on demand; qfu-emu's does");
    }
    const SteadyClock clock;
    ImageFiles images;
    const auto machine = build_machine(description, clock, images);
    for (const auto& image : images.read_only()) {
        std::cerr << "qfu-qemu: " << image.string()
                  << ": is read-only; what the guest writes to its chip will be lost\n";
    }
    CycleLog log(options.log, inputs(options, images), machine->journal(), clock);
    auto trace = start_trace(options.trace, inputs(options, images), options.log, *machine, clock);
    const auto bridge = make_bridge(*options.guest.kind, *machine);
    qemu = start_guest(options.guest, *bridge, STDIN_FILENO, STDOUT_FILENO);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        std::signal(signal, stop_guest);
    }
    bridge->serve();
    int status = 0;
    waitpid(qemu, &status, 0);
    print_misuse("qfu-qemu", machine->journal());
    print_idle_faults("qfu-qemu", description.file, idle_faults(description, *machine));
    log.finish();
    if (trace) {
        trace->finish("qfu-qemu");
    }
    images.expect_kept();
    return WIFEXITED(status) ? WEXITSTATUS(status) : support::kCannotRun;
}

} // namespace

int main(int argc, char** argv) try {
    const CommandLine line(argc, argv);
    CLI::App app(
        "Boots a QEMU guest with a machine file's adapters. Its serial console is standard input "
        "and output; on a terminal, Ctrl-A and then X ends the guest. Words after \"--\" are added "
        "to QEMU's command line.\n"
        "The exit status is QEMU's, or 2 when the guest cannot be started.",
        "qfu-qemu");
    Options options;
    app.add_option("--machine", options.machine, "machine file (TOML)")->required();
    std::vector<std::string> kinds;
    kinds.reserve(kGuestKinds.size());
    for (const GuestKind* kind : kGuestKinds) {
        kinds.emplace_back(kind->name);
    }
    std::string kind = kinds.front();
    app.add_option("--guest", kind, "processor and firmware")
        ->check(CLI::IsMember(kinds))
        ->capture_default_str();
    std::vector<std::string> disks;
    std::vector<std::string> sticks;
    std::vector<std::string> cds;
    app.add_option("--disk", disks, "image of a disk, which the guest writes to")
        ->allow_extra_args(false);
    app.add_option("--stick", sticks, "image of a USB stick, which the guest writes to")
        ->allow_extra_args(false);
    app.add_option("--cd", cds, "image of a CD")->allow_extra_args(false);
    app.add_option("--driver", options.guest.driver,
                   "bus-driver.efi, which an AArch64 guest needs to reach the adapters, for "
                   "firmware to start; without it load the driver in the shell");
    app.add_option("--log", options.log,
                   "file that receives what happens on the flash bus and in the PHY test block");
    add_trace_options(app, options.trace);
    app.footer("Example:\n"
               "  qfu-qemu --machine emulator/machines/indexed.toml --disk volume.img\n"
               "scripts/run makes such a volume, and does the main job in the guest.");
    app.set_version_flag("--version", support::version_line("qfu-qemu"));
    if (const auto status = support::read_arguments(app, line.own)) {
        return *status;
    }
    options.guest.kind = *std::ranges::find(kGuestKinds, kind, &GuestKind::name);
    if (!options.guest.driver.empty() && !options.guest.kind->driver) {
        throw support::InputError("--driver is for a guest of AArch64");
    }
    options.guest.further = line.after_dashes;
    if (!line.after_dashes.empty() && !line.after_dashes.front().starts_with('-')) {
        throw support::InputError('"' + line.after_dashes.front() +
                                  "\" stands where further arguments for QEMU do, such as -smbios; "
                                  "--guest chooses QEMU itself");
    }
    const auto add = [&](Drive::Kind kind_of_drive, const std::vector<std::string>& images) {
        for (const std::string& image : images) {
            options.guest.drives.push_back({kind_of_drive, image});
        }
    };
    add(Drive::Kind::kDisk, disks);
    add(Drive::Kind::kStick, sticks);
    add(Drive::Kind::kCd, cds);
    return run(options);
} catch (const std::exception& error) {
    std::cerr << "qfu-qemu: " << error.what() << '\n';
    return support::kCannotRun;
}
