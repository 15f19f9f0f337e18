#include "player.h"

#include "support/input_error.h"

#include <algorithm>
#include <functional>

namespace session {

namespace fs = std::filesystem;

namespace {

Counts count_operations(const emulator::Machine& machine) {
    Counts counts{};
    for (std::size_t i = 1; i < counts.size(); ++i) {
        const auto operation = static_cast<emulator::Operation>(i);
        for (const auto& adapter : machine.adapters()) {
            const auto* spi = adapter->spi().chip();
            const auto* nor = adapter->nor() == nullptr ? nullptr : adapter->nor()->chip();
            counts[i] += (spi == nullptr ? 0 : spi->count(operation)) +
                         (nor == nullptr ? 0 : nor->count(operation));
        }
    }
    return counts;
}

void press(emulator::Terminal& terminal, const std::string& keys) {
    if (keys == "<F1>") {
        terminal.press(emulator::KeyStroke{.scan_code = 0x0B, .character = 0});
    } else {
        terminal.press(keys);
    }
}

/// The shell's own commands that sessions use. @returns what they print
std::string run_shell_command(const Command& command, const fs::path& folder) {
    const std::string& name = command.words[0];
    const fs::path file = folder / command.words.back();
    if (name == "type") {
        const lab::Bytes bytes = lab::read_file(file);
        return std::string(bytes.begin(), bytes.end()) + "\r\n"; // the shell adds a line end
    }
    if (name == "rm") {
        fs::remove(file);
    } else if (name == "mkdir") {
        fs::create_directory(file);
    } else if (name == "attrib") {
        fs::permissions(file, fs::perms::owner_read);
    } else {
        throw support::InputError("sessions know no command " + name);
    }
    return "";
}

} // namespace

std::map<std::string, std::span<std::uint8_t>> chips_of(const emulator::Machine& machine) {
    std::map<std::string, std::span<std::uint8_t>> chips;
    for (const auto& adapter : machine.adapters()) {
        if (adapter->nor() != nullptr && adapter->nor()->chip() != nullptr) {
            chips[adapter->name() + ".cs0"] = adapter->nor()->chip()->contents();
        }
        if (adapter->spi().chip() != nullptr) {
            chips[adapter->name() + ".cs1"] = adapter->spi().chip()->contents();
        }
    }
    return chips;
}

Flash contents_of(const emulator::Machine& machine) {
    Flash contents;
    for (const auto& [place, chip] : chips_of(machine)) {
        contents[place].assign(chip.begin(), chip.end());
    }
    return contents;
}

Observation run(const Stage& stage, const Command& command, emulator::VirtualClock& clock,
                const fs::path& folder, bool log,
                const std::function<void(emulator::Firmware&)>& prepare) {
    Observation seen;
    if (!command.is_program()) {
        seen.console = run_shell_command(command, folder);
        return seen;
    }
    emulator::Machine& machine = *stage.machine;
    emulator::Firmware firmware(machine, clock, folder);
    if (!stage.root_bridge) {
        firmware.hide_root_bridge();
    }
    for (const auto& fault : stage.description.firmware_faults) {
        (firmware.faults().*emulator::call_named(fault.call)).fail(fault.nth, fault.times);
    }
    firmware.terminal().press_early(command.early_keys);
    for (const auto& [name, value] : stage.variables) {
        firmware.set_variable(name, value);
    }
    press(firmware.terminal(), command.keys);
    if (prepare) {
        prepare(firmware);
    }
    if (log) {
        machine.journal().listen_to_registers(
            [&seen](std::string_view line) { seen.registers.emplace_back(line); });
        machine.journal().listen_to_cycles(
            [&seen](std::string_view line) { seen.cycles.emplace_back(line); });
    }
    const Counts before = count_operations(machine);
    const std::uint64_t start = clock.now_ns();
    Lines arguments = command.words;
    arguments[0] = emulator::command_name(arguments[0]);
    seen.status =
        static_cast<unsigned>(emulator::run_program(firmware, stage.shell, arguments) & 0xFF);
    seen.ns = clock.now_ns() - start;
    machine.journal().listen_to_cycles(nullptr);
    machine.journal().listen_to_registers(nullptr);
    std::ranges::transform(count_operations(machine), before, seen.operations.begin(),
                           std::minus());
    seen.console = firmware.terminal().transcript();
    seen.starved = firmware.terminal().starved();
    seen.unread_keys = firmware.terminal().keys_left();
    seen.misuses = machine.journal().take_misuses();
    if (firmware.resources() != emulator::Resources{}) {
        seen.misuses.emplace_back("the program has not given everything back");
    }
    std::ranges::transform(
        emulator::kNamedCalls, seen.calls.begin(),
        [&](const emulator::NamedCall& call) { return (firmware.faults().*call.fault).calls(); });
    return seen;
}

} // namespace session
