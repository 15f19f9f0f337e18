// Plays sessions from the command line, in this process and under real firmware.
#include "guest/driver_bridge.h"
#include "player.h"
#include "tests/firmware/guest.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>

namespace session {
namespace {

/// True for cycles whose number depends on the speed of the machine: status reads that found the
/// chip busy, and reads of the PHY test block.
bool varies(const std::string& cycle) {
    constexpr std::string_view kStatus = "  05         < ";
    const std::size_t at = cycle.find(kStatus);
    if (at != cycle.npos) {
        return (std::stoul(cycle.substr(at + kStatus.size(), 2), nullptr, 16) & 1) != 0;
    }
    return cycle.find(".phy") != cycle.npos && cycle.find(" < ") != cycle.npos;
}

/// What came out of a stage, as lines that are the same in the process and in a guest. A sum stands
/// for the bytes of a file or chip.
Lines outcome(const Stage& stage) {
    Lines lines;
    Lines misuses = {"misuse:"};
    Lines cycles = {"flash bus:"};
    for (std::size_t i = 0; i < stage.commands.size(); ++i) {
        const Observation& seen = stage.observations[i];
        if (stage.commands[i].prints()) {
            lines.push_back("$ " + stage.commands[i].line);
            const Lines console = as_lines(seen.console);
            lines.insert(lines.end(), console.begin(), console.end());
            lines.push_back("= " + std::to_string(seen.status));
        }
        misuses.insert(misuses.end(), seen.misuses.begin(), seen.misuses.end());
        std::ranges::remove_copy_if(seen.cycles, std::back_inserter(cycles), varies);
    }
    for (const auto* contents : {&stage.files_after, &stage.flash_after}) {
        for (const auto& [name, bytes] : *contents) {
            const std::string text(bytes.begin(), bytes.end());
            lines.push_back(name + ": " + std::to_string(bytes.size()) + " bytes, sum " +
                            std::to_string(std::hash<std::string>()(text)));
        }
    }
    lines.insert(lines.end(), misuses.begin(), misuses.end());
    lines.insert(lines.end(), cycles.begin(), cycles.end());
    return lines;
}

/// A stage in a guest: its machine there and what came out.
struct Guest {
    Guest(std::string stage_name, std::string stage_folder, Stage in_process)
        : name(std::move(stage_name)), folder(std::move(stage_folder)),
          expected(outcome(in_process)), stage(std::move(in_process)) {
        stage.machine = emulator::build_machine(stage.description, clock, images);
        for (const auto& [place, chip] : chips_of(*stage.machine)) {
            std::ranges::copy(stage.flash.at(place), chip.begin());
        }
        stage.observations.assign(stage.commands.size(), {});
        stage.files_after.clear();
        stage.machine->journal().listen_to_cycles([this](std::string_view line) {
            stage.observations.front().cycles.emplace_back(line);
        });
    }

    std::string name;
    std::string folder; ///< of its files on the volume: "", or with a slash at the end
    Lines expected;     ///< what came out in the process
    emulator::SteadyClock clock;
    emulator::ImageFiles images;
    Stage stage; ///< as in the process, with what comes out in the guest
};
using Guests = std::deque<Guest>;

/// What the script prints in front of the keys for the next command.
constexpr std::string_view kKeys = "@@keys ";

/// A start-up script that keeps the output and the exit status of each command in files. Each time
/// that it loads the driver, the guest has the next stage's machine.
std::string script_of(const Guests& guests, bool driver) {
    std::string script = "@echo -off\r\nfs0:\r\n";
    for (std::size_t g = 0; g < guests.size(); ++g) {
        script += driver ? "load fs0:\\bus-driver.efi\r\n" : "";
        script += "cd \\" + guests[g].folder + "\r\n";
        const auto& commands = guests[g].stage.commands;
        for (std::size_t i = 0; i < commands.size(); ++i) {
            const std::string n = std::to_string(i);
            const std::string& keys = commands[i].keys;
            script += keys.empty() ? "" : "echo " + std::string(kKeys) + keys + "\r\n";
            script += commands[i].line + (commands[i].prints() ? " >a ~out" + n : "") + "\r\n";
            script += "echo %lasterror% >a ~status" + n + "\r\n";
        }
    }
    return script + "reset -s\r\n";
}

/// The keys that a line of the console asks for.
std::string keys_of(const std::string& line) {
    const std::size_t at = line.find(kKeys);
    return at == line.npos ? ""
                           : line.substr(at + kKeys.size(), line.find('\r') - at - kKeys.size());
}

/// Moves what came out in the guest from its volume to its stage.
void collect(Guest& guest, lab::Files& volume) {
    Stage& stage = guest.stage;
    const auto take = [&](const std::string& name) {
        const lab::Bytes bytes = volume[guest.folder + name];
        volume.erase(guest.folder + name);
        return std::string(bytes.begin(), bytes.end());
    };
    for (std::size_t i = 0; i < stage.commands.size(); ++i) {
        const std::string status = take("~status" + std::to_string(i));
        stage.observations[i].status =
            status.empty() ? ~0U : static_cast<unsigned>(std::stoul(status, nullptr, 0));
        stage.observations[i].console = take("~out" + std::to_string(i));
    }
    for (const auto& [name, bytes] : volume) {
        if (name.starts_with(guest.folder) && name != guest.folder) {
            stage.files_after[name.substr(guest.folder.size())] = bytes;
        }
    }
    stage.flash_after = contents_of(*stage.machine);
    stage.observations.front().misuses = stage.machine->journal().misuses();
}

/// Boots a guest for the stages and leaves what came out in them.
void boot(const firmware::Platform& platform, Guests& guests) {
    lab::Files program = {
        {"startup.nsh", {}}
    };
    firmware::add_program(program, platform);
    lab::Files volume = program;
    for (const Guest& guest : guests) {
        volume[guest.folder] = {};
        for (const auto& [name, bytes] : guest.stage.files) {
            volume[guest.folder + name] = bytes;
        }
    }
    const auto bridge = emulator::make_bridge(platform.guest, *guests.front().stage.machine);
    for (std::size_t i = 1; i < guests.size(); ++i) {
        dynamic_cast<emulator::DriverBridge&>(*bridge).then(*guests[i].stage.machine);
    }
    run_guest(platform, *bridge, volume, script_of(guests, platform.guest.driver), keys_of);
    for (const auto& [name, bytes] : program) {
        volume.erase(name);
    }
    for (Guest& guest : guests) {
        collect(guest, volume);
    }
}

/// Plays each file in this process and in guests, and prints what differs: consoles, statuses,
/// files, flash contents, misuse, and the cycles on the flash bus. @returns true when nothing does
bool play_in_guests(const std::string& platform, const std::vector<std::filesystem::path>& files) {
    const firmware::Platform& where = firmware::platform_named(platform);
    Guests guests;
    bool same = true;
    const auto play_stages = [&] {
        boot(where, guests);
        for (const Guest& guest : guests) {
            same = expect_same(guest.name, guest.expected, outcome(guest.stage)) && same;
        }
        guests.clear();
    };
    for (const auto& file : files) {
        const Playback playback = play(file);
        std::size_t number = 0;
        for (const Stage& stage : playback.stages) {
            // A guest on the bus keeps its adapters until it ends; the driver can change them.
            const bool alone = !where.guest.driver;
            guests.emplace_back(file.stem().string() + " " + std::to_string(++number),
                                alone ? "" : "s" + std::to_string(guests.size()) + "/", stage);
            if (alone) {
                play_stages();
            }
        }
    }
    if (!guests.empty()) {
        play_stages();
    }
    return same;
}

} // namespace
} // namespace session

int main(int argc, char** argv) try {
    const session::Lines words(argv + 1, argv + argc);
    if (words.size() > 2 && words[0] == "--guest") {
        return session::play_in_guests(words[1], {words.begin() + 2, words.end()}) ? 0 : 1;
    }
    if (words.empty() || words[0].starts_with('-')) {
        std::cerr << "Usage: play SESSION...                     in this process\n"
                     "       play --guest PLATFORM SESSION...    in a guest, too: x64, clang, edk2 "
                     "or aarch64\n";
        return 2;
    }
    bool good = true;
    for (const std::string& file : words) {
        const session::Playback playback = session::play(file);
        good = session::expect_same(file, playback.expected, playback.shown) && good;
    }
    return good ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
