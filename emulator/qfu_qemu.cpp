// Runs QEMU with a machine file's adapters in the guest.
#include "bus_trace.h"
#include "command_line.h"
#include "guest/driver_bridge.h"
#include "machine_file.h"
#include "qemu_bridge.h"
#include "report.h"
#include "support/arguments.h"
#include "support/input_error.h"
#include "support/version.h"

#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace emulator;

struct Options {
    std::string machine;
    std::string log;
    bool driver = false;
    TraceOptions trace;
    std::vector<std::string> command;
};

pid_t start(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM); // without its adapters the guest is of no use
        execvp(arguments[0], arguments.data());
        std::cerr << "qfu-qemu: " << arguments[0] << ": " << std::strerror(errno) << '\n';
        _exit(kCannotRun);
    }
    if (child < 0) {
        throw support::InputError("no process for QEMU");
    }
    return child;
}

/// The files that the log must not replace: what the machine is made of, and the guest's drives.
std::vector<std::filesystem::path> inputs(const Options& options, const ImageFiles& images) {
    constexpr std::string_view kFile = "file=";
    std::vector<std::filesystem::path> files = images.names();
    files.emplace_back(options.machine);
    for (const std::string& word : options.command) {
        files.emplace_back(word);
        const std::size_t name = word.find(kFile);
        if (name != word.npos) {
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
    std::unique_ptr<GuestBridge> bridge;
    if (options.driver) {
        bridge = std::make_unique<DriverBridge>(*machine);
    } else {
        bridge = std::make_unique<QemuBridge>(*machine);
    }
    std::vector<std::string> command = options.command;
    const auto devices = bridge->arguments();
    command.insert(command.end(), devices.begin(), devices.end());
    const pid_t qemu = start(command);
    bridge->handed_over();
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
    return WIFEXITED(status) ? WEXITSTATUS(status) : kCannotRun;
}

} // namespace

int main(int argc, char** argv) try {
    const CommandLine line(argc, argv);
    const support::Arguments arguments{
        "Runs QEMU with a machine file's adapters in the guest. The guest's memory must be "
        "shared (memory-backend-memfd), "
        "except with --driver.\n"
        "The exit status is QEMU's, or 2 when the adapters cannot be served.",
        "qfu-qemu"};
    arguments.usage("Usage: qfu-qemu --machine FILE [OPTION...] -- QEMU [QEMU-ARGUMENT...]");
    Options options;
    options.command = line.behind;
    arguments.option("--machine", options.machine, "machine file (TOML)").required();
    arguments.option("--log", options.log,
                     "file that receives what happens on the flash bus and in the PHY test block");
    arguments.flag("--driver", options.driver,
                   "serves the adapters to bus-driver.efi, which the guest loads, for a QEMU that "
                   "cannot take them as PCI functions (qemu-system-aarch64)");
    options.trace.add_to(arguments);
    arguments.footer("Example:\n"
                     "  qfu-qemu --machine emulator/machines/indexed.toml -- qemu-system-x86_64 "
                     "-machine q35,memory-backend=m0 -m 256 "
                     "-object memory-backend-memfd,id=m0,size=256M,share=on\n"
                     "scripts/run starts a whole guest, firmware and shell included.");
    arguments.version(support::version_line("qfu-qemu"));
    constexpr char kRightLine[] = "qfu-qemu --machine FILE -- qemu-system-x86_64 ...";
    if (const auto status = read_command_line(arguments, line, kRightLine)) {
        return *status;
    }
    if (options.command.empty()) {
        throw support::InputError("QEMU's command line is missing; it stands behind \"--\": " +
                                  std::string(kRightLine));
    }
    return run(options);
} catch (const std::exception& error) {
    std::cerr << "qfu-qemu: " << error.what() << '\n';
    return emulator::kCannotRun;
}
