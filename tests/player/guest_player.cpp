#include "guest_player.h"

#include "guest/driver_bridge.h"
#include "guest/qemu_bridge.h"
#include "hardware/hex.h"
#include "player.h"
#include "tests/firmware/guest.h"

#include <algorithm>
#include <iostream>
#include <sstream>

namespace session {
namespace {

using Lines = std::vector<std::string>;

/// A stage in a guest: its machine there and what came out.
struct Guest {
    Guest(std::string stage_name, const Stage& in_process, std::string stage_folder)
        : name(std::move(stage_name)), stage(&in_process), folder(std::move(stage_folder)) {
        machine = emulator::build_machine(stage->description, clock, images);
        const auto chips = chips_of(*machine);
        for (std::size_t i = 0; i < chips.size(); ++i) {
            std::ranges::copy(stage->flash[i], chips[i].begin());
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

/// The part of a console that is the same everywhere: not where in memory the image's bytes were.
std::string comparable(std::string console) {
    const std::string_view source = "Source(0x";
    for (std::size_t at = 0; (at = console.find(source, at)) != console.npos;) {
        at += source.size();
        console.erase(at, console.find(')', at) - at);
    }
    return console;
}

/// Cycles without those whose number depends on the speed of the machine: status reads that found
/// the chip busy, and reads of the PHY test block.
Lines comparable(const Lines& cycles) {
    const auto varies = [](const std::string& line) {
        constexpr std::string_view kStatus = "  05         < ";
        const std::size_t at = line.find(kStatus);
        if (at != line.npos) {
            const auto status = std::stoul(line.substr(at + kStatus.size(), 2), nullptr, 16);
            return (status & 1) != 0;
        }
        return line.find(".phy") != line.npos && line.find(" < ") != line.npos;
    };
    Lines result;
    std::ranges::remove_copy_if(cycles, std::back_inserter(result), varies);
    return result;
}

/// Collects what differs between the process and the guest.
class Comparison {
  public:
    explicit Comparison(const Guest& guest) : guest_(&guest) {}

    template <class Value>
    void expect_same(const std::string& what, const Value& in_process, const Value& in_guest) {
        if (in_process != in_guest) {
            std::cout << guest_->name << ": " << what << " differs in the guest\n";
            print("process", in_process);
            print("guest", in_guest);
            same_ = false;
        }
    }

    bool same() const { return same_; }

  private:
    static void print(const char* where, const std::string& text) {
        std::cout << where << ":\n" << text << '\n';
    }
    static void print(const char* where, const Lines& lines) {
        std::string text;
        for (const std::string& line : lines) {
            text += line + '\n';
        }
        print(where, text);
    }
    template <class Value>
    static void print(const char* /*where*/, const Value& /*bytes*/) {}

    const Guest* guest_;
    bool same_ = true;
};

bool compare(const Guest& guest, firmware::Volume& volume) {
    Comparison comparison(guest);
    const Stage& stage = *guest.stage;
    Lines cycles;
    Lines misuses;
    for (std::size_t i = 0; i < stage.commands.size(); ++i) {
        const Observation& seen = stage.observations[i];
        cycles.insert(cycles.end(), seen.cycles.begin(), seen.cycles.end());
        misuses.insert(misuses.end(), seen.misuses.begin(), seen.misuses.end());
        const std::string n = std::to_string(i);
        const std::string& line = stage.commands[i].line;
        if (!stage.commands[i].prints()) {
            continue;
        }
        comparison.expect_same("console of \"" + line + "\"", comparable(seen.console),
                               comparable(volume[guest.folder + "~out" + n].text()));
        const std::string status = volume[guest.folder + "~status" + n].text();
        comparison.expect_same("status of \"" + line + "\"", "0x" + emulator::hex(seen.status, 1),
                               status.substr(0, status.find('\r')));
    }
    Files before = stage.files_after;
    Files after = files_of(guest, volume);
    Lines names_before;
    Lines names_after;
    for (const auto& [name, bytes] : before) {
        names_before.push_back(name);
        comparison.expect_same("file " + name, bytes, after[name]);
    }
    for (const auto& [name, bytes] : after) {
        names_after.push_back(name);
    }
    comparison.expect_same("list of files", names_before, names_after);
    comparison.expect_same("flash", stage.flash_after, contents_of(*guest.machine));
    comparison.expect_same("misuse", misuses, guest.machine->journal().misuses());
    comparison.expect_same("flash bus", comparable(cycles), comparable(guest.cycles));
    return comparison.same();
}

bool play(const firmware::Platform& platform, const Guests& guests) {
    firmware::Volume volume = boot(platform, guests);
    return std::ranges::count_if(guests,
                                 [&](const auto& guest) { return !compare(*guest, volume); }) == 0;
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
