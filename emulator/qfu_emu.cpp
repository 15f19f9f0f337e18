// The program in a Linux process, on an emulated machine.
#include "command_line.h"
#include "in_process.h"
#include "keyboard.h"
#include "machine/list_command.h"
#include "machine/machine_file.h"
#include "observe/bus_summary.h"
#include "observe/report.h"
#include "observe/time_account.h"
#include "support/input_error.h"
#include "support/version.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <iostream>

namespace {

using namespace emulator;

/// Exit status when the emulator cannot do its part; no program ends with it.
constexpr int kEmulatorFailed = 125;

struct Options {
    std::string machine;
    std::string program = "qfu";
    std::optional<std::string> keys;
    std::string folder = ".";
    std::string log;
    TraceOptions trace;
    std::string estimate; ///< "text" or "json": that, in place of the console
    bool summary = false;
    std::string topic; ///< what to list, in place of a run
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

void print_notes(Firmware& firmware, const MachineDescription& description) {
    print_misuse("qfu-emu", firmware.journal());
    if (firmware.terminal().starved()) {
        std::cerr << "qfu-emu: the program asked for a key and there was none; it got Enter\n";
    }
    std::vector<std::size_t> lines = idle_faults(description, firmware.machine());
    for (const FirmwareFaultDescription& fault : description.firmware_faults) {
        if ((firmware.faults().*call_named(fault.call)).never_struck()) {
            lines.push_back(fault.line);
        }
    }
    print_idle_faults("qfu-emu", description.file, std::move(lines));
}

/// The files that the log must not replace: what the machine is made of, and files in the shell's
/// volume that the program reads.
std::vector<std::filesystem::path> inputs(const Options& options, const ImageFiles& images) {
    std::vector<std::filesystem::path> files = images.names();
    files.emplace_back(options.machine);
    const std::filesystem::path volume = options.folder;
    files.push_back(volume / "spilist.bin");
    for (const std::string& argument : options.arguments) {
        files.push_back(volume / argument);
    }
    return files;
}

/// What looks on while the program runs, and says at the end what it has seen.
class Observers {
  public:
    /// @param inputs  files that the log and the trace must not replace
    /// @throws support::InputError when one of their files is refused or cannot be written
    Observers(const Options& options, const MachineDescription& description,
              const std::vector<std::filesystem::path>& inputs, Machine& machine,
              VirtualClock& clock)
        : options_(&options), log_(options.log, inputs, machine.journal(), clock),
          trace_(start_trace(options.trace, inputs, options.log, machine, clock)) {
        if (options.summary) {
            summary_.emplace(machine, clock);
        }
        const bool timed = let_accesses_take_time(description, machine, clock);
        if (timed || !options.estimate.empty()) {
            account_.emplace(machine, clock);
        }
    }

    /// Prints and writes what there is to say.
    /// @throws support::InputError when not all of a file was written
    void finish() {
        if (!options_->estimate.empty()) {
            std::cout << (options_->estimate == "json" ? account_->json() : account_->text())
                      << '\n';
        } else if (account_) {
            std::cerr << "qfu-emu: " << account_->text() << '\n';
        }
        if (summary_) {
            std::cerr << summary_->text();
        }
        log_.finish();
        if (trace_) {
            trace_->finish("qfu-emu");
        }
    }

  private:
    /// Gives register accesses the time that the machine file says. For an estimate or a summary
    /// they take a typical one without it.
    /// @returns true when the machine file says one
    bool let_accesses_take_time(const MachineDescription& description, const Machine& machine,
                                VirtualClock& clock) const {
        bool said = false;
        for (std::size_t i = 0; i < description.adapters.size(); ++i) {
            const std::optional<AccessTimes>& times = description.adapters[i].access_times;
            said = said || times.has_value();
            if (times || !options_->estimate.empty() || options_->summary) {
                machine.adapter(i).take_time(clock, times.value_or(AccessTimes{}));
            }
        }
        return said;
    }

    const Options* options_;
    CycleLog log_;
    std::optional<BusTrace> trace_;
    std::optional<BusSummary> summary_;
    std::optional<TimeAccount> account_;
};

/// Sets the firmware up as the options and the machine file want it.
void prepare(Firmware& firmware, const Options& options, const MachineDescription& description,
             const ImageFiles& images) {
    if (options.estimate.empty()) {
        firmware.terminal().on_output(
            [](std::string_view text) { std::cout << text << std::flush; });
    }
    std::vector<std::filesystem::path> own = images.names();
    own.emplace_back(options.machine);
    firmware.files().protect(own);
    for (const FirmwareFaultDescription& fault : description.firmware_faults) {
        (firmware.faults().*call_named(fault.call)).fail(fault.nth, fault.times);
    }
}

int run(const Options& options) {
    const MachineDescription description = load_machine_file(options.machine);
    VirtualClock clock;
    ImageFiles images;
    const auto machine = build_machine(description, clock, images);
    machine->assign_bars();
    Observers observers(options, description, inputs(options, images), *machine, clock);
    Firmware firmware(*machine, clock, options.folder);
    prepare(firmware, options, description, images);
    std::optional<Keyboard> keyboard;
    press_keys(firmware.terminal(), options, keyboard);
    const CtrlC ctrl_c(firmware);
    std::vector<std::string> arguments = {command_name(options.program)};
    arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
    const EFI_STATUS status = run_program(firmware, Shell::kCurrent, arguments);
    print_notes(firmware, description);
    observers.finish();
    images.expect_kept();
    support::finish_standard_output();
    return static_cast<int>(status & 0xFF);
}

} // namespace

int main(int argc, char** argv) try {
    const CommandLine line(argc, argv);
    CLI::App app("Runs qfu or flash on an emulated machine and shows its console. Words after "
                 "\"--\" are the program's.\n"
                 "The exit status is what the UEFI shell would show. It is 125 when the emulator "
                 "cannot do its part.",
                 "qfu-emu");
    Options options;
    options.arguments = line.after_dashes;
    app.add_option("--machine", options.machine, "machine file (TOML): adapters, chips, faults");
    app.add_option("--program", options.program, "what runs: qfu or flash")
        ->check(CLI::IsMember({"qfu", "flash"}));
    app.add_option("--keys", options.keys,
                   "keys that are pressed, in order; without it they come from standard input");
    app.add_option("--dir", options.folder, "folder that the shell sees as its volume FS0:")
        ->check(CLI::ExistingDirectory);
    app.add_option("--log", options.log,
                   "file that receives what happens on the flash bus and in the PHY test block");
    add_trace_options(app, options.trace);
    app.add_option("--estimate", options.estimate,
                   "print how long the run would take on hardware and where the time would go, as "
                   "text or json, in place of the console")
        ->check(CLI::IsMember({"text", "json"}));
    app.add_flag("--summary", options.summary,
                 "print at the end, on standard error, which operations ran on the flash bus, how "
                 "often and how long");
    CLI::App* list = app.add_subcommand("list", "print what machine files can name");
    list->add_option("things", options.topic, "what to print")
        ->required()
        ->check(CLI::IsMember(&list_topics()));
    list->footer("Example:\n  qfu-emu list parts");
    app.footer(
        "Examples:\n"
        "  qfu-emu --machine emulator/machines/indexed.toml --dir work -- -l\n"
        "  qfu-emu --machine emulator/machines/indexed.toml --dir work --log cycles.txt -- "
        "-wbf image.bin -addr 0 -y\n"
        "  qfu-emu --machine emulator/machines/indexed.toml --dir work --trace bus.vcd -- -l\n"
        "  qfu-emu --machine emulator/machines/bar0.toml --dir work --estimate json -- "
        "-wbf image.bin -addr 0 -y\n"
        "  qfu-emu list parts");
    app.set_version_flag("--version", support::version_line("qfu-emu"));
    if (const auto status = support::read_arguments(app, line.own, kEmulatorFailed)) {
        return *status;
    }
    if (list->parsed()) {
        list_topics().at(options.topic)();
        support::finish_standard_output();
        return 0;
    }
    if (options.machine.empty()) {
        throw support::InputError("--machine is missing; \"qfu-emu --help\" tells more");
    }
    return run(options);
} catch (const std::exception& error) {
    std::cerr << "qfu-emu: " << error.what() << '\n';
    return kEmulatorFailed;
}
