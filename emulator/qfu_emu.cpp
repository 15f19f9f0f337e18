// The program in a Linux process, on an emulated machine.
#include "in_process.h"
#include "keyboard.h"
#include "machine_file.h"
#include "report.h"
#include "support/version.h"

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <iostream>

namespace {

using namespace emulator;

/// Exit status when the emulator itself cannot do what it was asked for; the program's own statuses
/// are 0 and 3.
constexpr int kEmulatorFailed = 2;

struct Options {
    std::string machine;
    std::optional<std::string> keys;
    std::string folder = ".";
    std::string log;
    std::vector<std::string> arguments;
};

/// Ctrl-C as the shell has it, for as long as this lives: the running command is broken, and the
/// program gets the key like any other.
class CtrlC {
  public:
    explicit CtrlC(Firmware& firmware) {
        running = &firmware;
        std::signal(SIGINT, press);
    }
    CtrlC(const CtrlC&) = delete;
    CtrlC& operator=(const CtrlC&) = delete;
    ~CtrlC() { std::signal(SIGINT, SIG_DFL); }

    static std::optional<KeyStroke> key() {
        constexpr KeyStroke kKey{0, 0x03};
        return pressed.exchange(false) ? std::optional(kKey) : std::nullopt;
    }

  private:
    static void press(int /*signal*/) {
        pressed = true;
        running->break_command();
    }

    static inline std::atomic<bool> pressed = false;
    static inline Firmware* running = nullptr;
};

void press_keys(Terminal& terminal, const Options& options, std::optional<Keyboard>& keyboard) {
    if (options.keys) {
        terminal.press(*options.keys);
    } else {
        keyboard.emplace();
    }
    terminal.on_key_needed([&](bool program_waits) {
        std::optional<KeyStroke> key = CtrlC::key();
        if (!key && keyboard) {
            key = keyboard->next(program_waits);
        }
        if (!keyboard || keyboard->ended()) {
            terminal.no_more_keys();
        }
        return key;
    });
}

void print_notes(Firmware& firmware) {
    print_misuse("qfu-emu", firmware.journal());
    if (firmware.terminal().starved()) {
        std::cerr << "qfu-emu: the program asked for a key and there was none; it got Enter\n";
    }
}

int run(const Options& options) {
    const MachineDescription description = load_machine_file(options.machine);
    VirtualClock clock;
    ImageFiles images;
    const auto machine = build_machine(description, clock, images);
    machine->assign_bars();
    const CycleLog log(options.log, machine->journal());
    Firmware firmware(*machine, clock, options.folder);
    firmware.terminal().on_output([](std::string_view text) { std::cout << text << std::flush; });
    std::vector<std::filesystem::path> own = images.names();
    own.emplace_back(options.machine);
    firmware.files().protect(own);
    std::optional<Keyboard> keyboard;
    press_keys(firmware.terminal(), options, keyboard);
    const CtrlC ctrl_c(firmware);
    for (const FirmwareFaultDescription& fault : description.firmware_faults) {
        for (const NamedCall& call : kNamedCalls) {
            if (call.name == fault.call) {
                (firmware.faults().*call.fault).fail(fault.nth, fault.times);
            }
        }
    }
    std::vector<std::string> arguments = {kCommandName};
    arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
    const EFI_STATUS status = run_program(firmware, Shell::kCurrent, arguments);
    print_notes(firmware);
    images.expect_kept();
    return static_cast<int>(status & 0xFF);
}

} // namespace

int main(int argc, char** argv) try {
    CLI::App app{"Runs qfu on an emulated machine and shows its console.\n"
                 "The exit status is what the UEFI shell would show: 0, or 3 when qfu reports a "
                 "failure; 2 when the emulator cannot run."};
    Options options;
    app.add_option("--machine", options.machine, "machine file (TOML): adapters, chips, faults")
        ->required();
    app.add_option("--keys", options.keys,
                   "keys that are pressed, in order; without it they come from standard input");
    app.add_option("--dir", options.folder, "folder that the shell sees as its volume FS0:")
        ->check(CLI::ExistingDirectory);
    app.add_option("--log", options.log,
                   "file that receives what happens on the flash bus and in the PHY test block");
    app.add_option("arguments", options.arguments, "arguments of qfu, behind --");
    app.footer("Example:\n  qfu-emu --machine emulator/machines/indexed.toml --dir work -- "
               "-wbf image.bin -addr 0 -y");
    app.set_version_flag("--version", support::version_line("qfu-emu"));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kEmulatorFailed;
    }
    return run(options);
} catch (const std::exception& error) {
    std::cerr << "qfu-emu: " << error.what() << '\n';
    return kEmulatorFailed;
}
