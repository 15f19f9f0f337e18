// Runs QEMU with a machine file's adapters in the guest.
#include "machine_file.h"
#include "qemu_bridge.h"
#include "report.h"
#include "support/input_error.h"
#include "support/version.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstring>
#include <iostream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace emulator;

constexpr int kBridgeFailed = 2;

struct Options {
    std::string machine;
    std::string log;
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
        _exit(kBridgeFailed);
    }
    if (child < 0) {
        throw support::InputError("no process for QEMU");
    }
    return child;
}

int run(const Options& options) {
    const MachineDescription description = load_machine_file(options.machine);
    if (!description.firmware_faults.empty()) {
        throw support::InputError(options.machine + ": a guest's firmware does not fail on demand");
    }
    const SteadyClock clock;
    ImageFiles images;
    const auto machine = build_machine(description, clock, images);
    const CycleLog log(options.log, machine->journal());
    for (const auto& image : images.read_only()) {
        std::cerr << "qfu-qemu: " << image.string()
                  << ": is read-only; what the guest writes to its chip will be lost\n";
    }
    QemuBridge bridge(*machine);
    std::vector<std::string> command = options.command;
    const auto devices = bridge.arguments();
    command.insert(command.end(), devices.begin(), devices.end());
    const pid_t qemu = start(command);
    bridge.handed_over();
    bridge.serve();
    int status = 0;
    waitpid(qemu, &status, 0);
    print_misuse("qfu-qemu", machine->journal());
    images.expect_kept();
    return WIFEXITED(status) ? WEXITSTATUS(status) : kBridgeFailed;
}

} // namespace

int main(int argc, char** argv) try {
    CLI::App app{
        "Runs QEMU with a machine file's adapters in the guest. The guest's memory must be "
        "shared (memory-backend-memfd).\n"
        "The exit status is QEMU's, or 2 when QEMU or the machine file cannot be used."};
    Options options;
    app.add_option("--machine", options.machine, "machine file (TOML)")->required();
    app.add_option("--log", options.log,
                   "file that receives what happens on the flash bus and in the PHY test block");
    app.add_option("command", options.command, "QEMU and its arguments, behind --")->required();
    app.set_version_flag("--version", support::version_line("qfu-qemu"));
    app.footer("Example:\n  qfu-qemu --machine emulator/machines/two.toml -- qemu-system-x86_64 "
               "-machine q35,memory-backend=m0 -m 256 "
               "-object memory-backend-memfd,id=m0,size=256M,share=on");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kBridgeFailed;
    }
    return run(options);
} catch (const std::exception& error) {
    std::cerr << "qfu-qemu: " << error.what() << '\n';
    return kBridgeFailed;
}
