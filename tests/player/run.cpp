#include "run.h"

#include "registers.h"
#include "support/input_error.h"

#include <algorithm>
#include <cctype>
#include <fstream>

namespace session {

namespace fs = std::filesystem;
using emulator::Operation;
using lab::Bytes;

namespace {

std::map<Operation, std::uint64_t> count_operations(const emulator::Machine& machine) {
    std::map<Operation, std::uint64_t> counts;
    for (std::size_t i = 1; i < emulator::kOperationCount; ++i) {
        const auto operation = static_cast<Operation>(i);
        for (const auto& adapter : machine.adapters()) {
            const auto* spi = adapter->spi().chip();
            const auto* nor = adapter->nor() == nullptr ? nullptr : adapter->nor()->chip();
            counts[operation] += (spi == nullptr ? 0 : spi->count(operation)) +
                                 (nor == nullptr ? 0 : nor->count(operation));
        }
    }
    return counts;
}

void press(emulator::Terminal& terminal, const std::string& keys) {
    constexpr std::string_view kFunctionKey = "<F1>"; // has a scan code and no character
    constexpr std::uint16_t kScanCode = 0x0B;
    std::size_t from = 0;
    for (std::size_t at = 0; (at = keys.find(kFunctionKey, from)) != keys.npos;) {
        terminal.press(keys.substr(from, at - from));
        terminal.press(emulator::KeyStroke{kScanCode, 0});
        from = at + kFunctionKey.size();
    }
    terminal.press(keys.substr(from));
}

/// The shell's own commands that sessions use. @returns what they print
std::string run_shell_command(const Command& command, const fs::path& folder) {
    const std::string& name = command.words[0];
    if (name == "type") {
        const Bytes bytes = find_file(folder, command.words.at(1)).value_or(Bytes{});
        return std::string(bytes.begin(), bytes.end()) + "\r\n"; // the shell adds a line end
    }
    if (name == "rm") {
        fs::remove(folder / command.words.at(1));
    } else if (name == "mkdir") {
        fs::create_directory(folder / command.words.at(1));
    } else if (name == "attrib") {
        fs::permissions(folder / command.words.at(2), fs::perms::owner_read);
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

Files read_files(const fs::path& folder) {
    Files files;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const std::string name = fs::relative(entry.path(), folder).string();
        if (entry.is_directory()) {
            files[name + "/"] = {};
        } else {
            std::ifstream in(entry.path(), std::ios::binary);
            files[name] = {std::istreambuf_iterator<char>(in), {}};
        }
    }
    return files;
}

Observation run(const Stage& stage, const Command& command, emulator::VirtualClock& clock,
                const fs::path& folder, Listen listen,
                const std::function<void(emulator::Firmware&)>& prepare) {
    Observation seen;
    if (!command.is_qfu()) {
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
    press(firmware.terminal(), command.keys);
    if (prepare) {
        prepare(firmware);
    }
    if (listen.registers) {
        machine.journal().listen_to_registers(
            [&seen](std::string_view line) { seen.registers.emplace_back(line); });
    }
    if (listen.cycles) {
        machine.journal().listen_to_cycles(
            [&seen](std::string_view line) { seen.cycles.emplace_back(line); });
    }
    const auto operations_before = count_operations(machine);
    const std::uint64_t start = clock.now_ns();
    Lines arguments = {emulator::kCommandName};
    arguments.insert(arguments.end(), command.words.begin() + 1, command.words.end());
    seen.status =
        static_cast<unsigned>(emulator::run_program(firmware, stage.shell, arguments) & 0xFF);
    seen.ns = clock.now_ns() - start;
    if (listen.cycles) {
        machine.journal().listen_to_cycles(nullptr);
    }
    if (listen.registers) {
        machine.journal().listen_to_registers(nullptr);
        seen.registers = register_lines(seen.registers, machine.adapters().size() > 1);
    }
    for (const auto& [operation, count] : count_operations(machine)) {
        seen.operations[operation] = count - operations_before.at(operation);
    }
    seen.console = firmware.terminal().transcript();
    seen.starved = firmware.terminal().starved();
    seen.unread_keys = firmware.terminal().keys_left();
    seen.misuses = machine.journal().take_misuses();
    if (firmware.resources() != emulator::Resources{}) {
        seen.misuses.emplace_back("the program has not given everything back");
    }
    for (const emulator::NamedCall& call : emulator::kNamedCalls) {
        seen.calls.push_back((firmware.faults().*call.fault).calls());
    }
    return seen;
}

std::optional<lab::Bytes> find_file(const std::filesystem::path& folder, const std::string& name) {
    const auto files = read_files(folder);
    const auto same = [&](const auto& entry) {
        return std::ranges::equal(
            entry.first, name, [](char a, char b) { return std::toupper(a) == std::toupper(b); });
    };
    const auto found = std::ranges::find_if(files, same);
    return found == files.end() ? std::nullopt : std::optional(found->second);
}

} // namespace session
