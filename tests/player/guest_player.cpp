#include "guest_player.h"

#include "guest/driver_bridge.h"
#include "guest/qemu_bridge.h"
#include "hardware/hex.h"
#include "player.h"
#include "support/sha256.h"
#include "tests/firmware/guest.h"

#include <algorithm>
#include <sstream>

namespace session {
namespace {

/// A stage in a guest: its machine there and what came out.
struct Guest {
    Guest(std::string stage_name, const Stage& in_process, std::string stage_folder)
        : name(std::move(stage_name)), stage(&in_process), folder(std::move(stage_folder)) {
        machine = emulator::build_machine(stage->description, clock, images);
        for (const auto& [place, chip] : chips_of(*machine)) {
            std::ranges::copy(stage->flash.at(place), chip.begin());
        }
        machine->journal().listen_to_cycles(
            [this](std::string_view line) { cycles.emplace_back(line); });
    }
    Guest(const Guest&) = delete;
    Guest& operator=(const Guest&) = delete;
    ~Guest() = default;

    std::string name;
    const Stage* stage;
    std::string folder; ///< of its files on the volume: "", or with a slash at the end
    emulator::SteadyClock clock;
    emulator::ImageFiles images;
    std::unique_ptr<emulator::Machine> machine;
    Lines cycles;
};
using Guests = std::vector<std::unique_ptr<Guest>>;

/// A start-up script that keeps the output and the exit status of each command in files. Each time
/// that it loads the driver, the guest has the next stage's machine.
std::string script_of(const Guests& guests, bool driver) {
    std::string script = "@echo -off\r\n";
    for (std::size_t g = 0; g < guests.size(); ++g) {
        script += driver ? "load fs0:\\bus-driver.efi\r\n" : "";
        script += "fs0:\r\ncd \\" + guests[g]->folder + "\r\n";
        const auto& commands = guests[g]->stage->commands;
        for (std::size_t i = 0; i < commands.size(); ++i) {
            const std::string n = std::to_string(i);
            script += "echo @@step " + std::to_string(g) + " " + n + "\r\n" + commands[i].line;
            script += commands[i].prints() ? " >a ~out" + n + "\r\n" : "\r\n";
            script += "echo %lasterror% >a ~status" + n + "\r\n";
        }
    }
    return script + "reset -s\r\n";
}

/// The keys of the command that a line of the console announces.
std::string keys_at(const Guests& guests, const std::string& line) {
    constexpr std::string_view kStep = "@@step ";
    const std::size_t at = line.find(kStep);
    if (at == line.npos) {
        return "";
    }
    std::istringstream numbers(line.substr(at + kStep.size()));
    std::size_t guest = 0;
    std::size_t command = 0;
    numbers >> guest >> command;
    return guests[guest]->stage->commands[command].keys;
}

/// The volume's files as the stage's folder had them, without what the script adds.
Files files_of(const Guest& guest, firmware::Volume& volume) {
    Files files;
    for (const auto& [name, file] : volume) {
        const std::string inside =
            name.starts_with(guest.folder) ? name.substr(guest.folder.size()) : "";
        const bool ours = inside.starts_with("~") || inside == "startup.nsh" ||
                          inside == "qfu.efi" || inside == "qfu.man" || inside == "bus-driver.efi";
        if (!inside.empty() && !ours) {
            files[file.folder ? inside + "/" : inside] = file.bytes;
        }
    }
    return files;
}

/// Boots a guest for the stages and leaves what came out in them.
firmware::Volume boot(const firmware::Platform& platform, const Guests& guests) {
    firmware::Volume volume;
    firmware::add_program(volume, platform);
    for (const auto& guest : guests) {
        if (!guest->folder.empty()) {
            volume[guest->folder.substr(0, guest->folder.size() - 1)].folder = true;
        }
        for (const auto& [name, bytes] : guest->stage->files) {
            const bool folder = name.ends_with('/');
            auto& file = volume[guest->folder + (folder ? name.substr(0, name.size() - 1) : name)];
            file.bytes = bytes;
            file.folder = folder;
        }
    }
    const std::string script = script_of(guests, platform.guest.driver);
    const auto keys = [&](const std::string& line) { return keys_at(guests, line); };
    if (!platform.guest.driver) {
        emulator::QemuBridge bridge(*guests.front()->machine);
        return run_guest(platform, bridge, volume, script, keys).volume;
    }
    emulator::DriverBridge bridge(*guests.front()->machine);
    for (std::size_t i = 1; i < guests.size(); ++i) {
        bridge.then(*guests[i]->machine);
    }
    return run_guest(platform, bridge, volume, script, keys).volume;
}

/// Cycles without those whose number depends on the speed of the machine: status reads that found
/// the chip busy, and reads of the PHY test block.
Lines comparable(Lines cycles) {
    const auto varies = [](const std::string& line) {
        constexpr std::string_view kStatus = "  05         < ";
        const std::size_t at = line.find(kStatus);
        if (at != line.npos) {
            const auto status = std::stoul(line.substr(at + kStatus.size(), 2), nullptr, 16);
            return (status & 1) != 0;
        }
        return line.find(".phy") != line.npos && line.find(" < ") != line.npos;
    };
    std::erase_if(cycles, varies);
    return cycles;
}

/// What came out of a stage, as lines that are the same in the process and in a guest.
class Outcome {
  public:
    void add(const std::string& heading, const Lines& lines) {
        lines_.push_back(heading + ":");
        lines_.insert(lines_.end(), lines.begin(), lines.end());
    }
    /// Adds files or chips; a sum stands for their bytes.
    void add(const std::map<std::string, lab::Bytes>& contents) {
        for (const auto& [name, bytes] : contents) {
            support::Sha256 sum;
            sum.add(bytes);
            std::string text;
            for (const std::uint8_t byte : sum.finish()) {
                text += emulator::hex(byte, 2);
            }
            lines_.push_back(name + ": " + std::to_string(bytes.size()) + " bytes, SHA-256 " +
                             text);
        }
    }
    const Lines& lines() const { return lines_; }

  private:
    Lines lines_;
};

bool same_in_guest(const Guest& guest, firmware::Volume& volume) {
    const Stage& stage = *guest.stage;
    Outcome in_process;
    Outcome in_guest;
    Lines cycles;
    Lines misuses;
    for (std::size_t i = 0; i < stage.commands.size(); ++i) {
        const Observation& seen = stage.observations[i];
        cycles.insert(cycles.end(), seen.cycles.begin(), seen.cycles.end());
        misuses.insert(misuses.end(), seen.misuses.begin(), seen.misuses.end());
        if (stage.commands[i].prints()) {
            const std::string& line = stage.commands[i].line;
            const std::string n = std::to_string(i);
            const std::string status = volume[guest.folder + "~status" + n].text();
            in_process.add("console of " + line, as_lines(seen.console));
            in_guest.add("console of " + line, as_lines(volume[guest.folder + "~out" + n].text()));
            in_process.add("status", {"0x" + emulator::hex(seen.status, 1)});
            in_guest.add("status", {status.substr(0, status.find('\r'))});
        }
    }
    in_process.add(stage.files_after);
    in_guest.add(files_of(guest, volume));
    in_process.add(stage.flash_after);
    in_guest.add(contents_of(*guest.machine));
    in_process.add("misuse", misuses);
    in_guest.add("misuse", guest.machine->journal().misuses());
    in_process.add("flash bus", comparable(cycles));
    in_guest.add("flash bus", comparable(guest.cycles));
    return expect_same(guest.name, in_process.lines(), in_guest.lines());
}

bool play(const firmware::Platform& platform, const Guests& guests) {
    firmware::Volume volume = boot(platform, guests);
    bool same = true;
    for (const auto& guest : guests) {
        same = same_in_guest(*guest, volume) && same;
    }
    return same;
}

} // namespace

bool play_in_guests(const std::string& platform, const std::vector<std::filesystem::path>& files) {
    const firmware::Platform& where = firmware::platform_named(platform);
    std::vector<Playback> playbacks;
    playbacks.reserve(files.size());
    for (const auto& file : files) {
        playbacks.push_back(session::play(file));
    }
    Guests guests;
    bool same = true;
    for (std::size_t i = 0; i < files.size(); ++i) {
        std::size_t number = 0;
        for (const Stage& stage : playbacks[i].stages) {
            const std::string name = files[i].stem().string() + " " + std::to_string(++number);
            if (!stage.process_only.empty()) {
                throw SessionError(name + ": a guest cannot play it: " + stage.process_only);
            }
            // A guest on the bus keeps its adapters until it ends; the driver can change them.
            std::string folder = "s" + std::to_string(guests.size()) + "/";
            guests.push_back(
                std::make_unique<Guest>(name, stage, where.guest.driver ? folder : std::string()));
            if (!where.guest.driver) {
                same = play(where, guests) && same;
                guests.clear();
            }
        }
    }
    return guests.empty() ? same : play(where, guests) && same;
}

} // namespace session
