// Each story runs twice: in this process, and in a guest under real firmware and its shell.
// Console, status, files, flash contents and the cycles on the flash bus must be the same.
#include "guest.h"
#include "guest/driver_bridge.h"
#include "in_process.h"
#include "lab.h"
#include "qemu_bridge.h"
#include "story.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

namespace {

using namespace firmware;

/// What both twins show.
struct Shown {
    std::vector<std::string> consoles; ///< by step
    std::vector<std::string> statuses;
    Volume files;
    std::vector<std::vector<std::uint8_t>> flash;
    std::vector<std::string> cycles;
    std::vector<std::string> misuses;
};

/// A mismatch names where in memory the image's bytes lay.
std::string without_addresses(std::string console) {
    const std::string_view source = "Source(0x";
    for (std::size_t at = 0; (at = console.find(source, at)) != console.npos;) {
        at += source.size();
        console.erase(at, console.find(')', at) - at);
    }
    return console;
}

/// A status read, as the log shows it, that found the chip busy.
bool is_busy_poll(const std::string& line) {
    const std::size_t received = line.find("  05         < ");
    if (received == line.npos) {
        return false;
    }
    return (std::stoul(line.substr(received + 15, 2), nullptr, 16) & 1) != 0;
}

/// Cycles without the status reads that found the chip busy: their number depends on the speed of
/// the machine.
std::vector<std::string> without_busy_polls(const std::vector<std::string>& cycles) {
    std::vector<std::string> result;
    std::ranges::copy_if(cycles, std::back_inserter(result),
                         [](const std::string& line) { return !is_busy_poll(line); });
    return result;
}

/// Lines in which a group that is equal to the one right before it is left out.
/// @param belongs  says whether a line is in a group at all
/// @param starts   says whether a line starts a new group behind another line of one
template <class Belongs, class Starts>
std::vector<std::string> without_repeats(const std::vector<std::string>& lines, Belongs belongs,
                                         Starts starts) {
    std::vector<std::string> result;
    std::vector<std::string> previous;
    std::vector<std::string> group;
    const auto close = [&] {
        if (group != previous) {
            result.insert(result.end(), group.begin(), group.end());
        }
        previous = std::exchange(group, {});
    };
    for (const std::string& line : lines) {
        const bool member = belongs(line);
        if (!group.empty() && (!member || starts(group.back(), line))) {
            close();
        }
        if (member) {
            group.push_back(line);
        } else {
            previous.clear();
            result.push_back(line);
        }
    }
    close();
    return result;
}

/// What a look at a port that is watched prints, in its order.
std::optional<std::size_t> monitor_message(const std::string& line) {
    constexpr std::array<std::string_view, 4> kMessages = {
        "PHY test control not pass", "PHY test control not lock", "PHY test PRBS error counter 0x",
        "PHY test PRBS counter is zero"};
    const auto* found = std::ranges::find_if(
        kMessages, [&](std::string_view message) { return line.starts_with(message); });
    return found == kMessages.end() ? std::nullopt
                                    : std::optional<std::size_t>(found - kMessages.begin());
}

/// How often a port is looked at depends on the speed of the machine and on where in a second the
/// monitor starts. Of equal looks in a row one is kept.
std::string without_repeated_messages(const std::string& console) {
    std::vector<std::string> lines;
    std::istringstream text(console);
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    std::string result;
    for (const std::string& line : without_repeats(
             lines, [](const std::string&l) { return monitor_message(l).has_value(); },
             [](const std::string&before, const std::string&l) {
                 return *monitor_message(l) <= *monitor_message(before);
             })) {
        result += line + '\n';
    }
    return result;
}

std::vector<std::string> without_repeated_looks(const std::vector<std::string>& cycles) {
    return without_repeats(
        cycles,
        [](const std::string& l) { return l.find(".phy") != l.npos && l.find(" < ") != l.npos; },
        [](const std::string& /*before*/, const std::string& l) {
            return l.find("test control") != l.npos;
        });
}

/// The part of a console that is the same on every machine.
std::string comparable(const std::string& console) {
    return without_repeated_messages(without_addresses(console));
}

/// The part of a cycle log that is the same on every machine.
std::vector<std::string> comparable(const std::vector<std::string>& cycles) {
    return without_repeated_looks(without_busy_polls(cycles));
}

void listen(emulator::Machine& machine, std::vector<std::string>& cycles) {
    machine.journal().listen_to_cycles([&](std::string_view line) { cycles.emplace_back(line); });
}

void collect_hardware(const emulator::Machine& machine, emulator::Journal& journal, Shown& shown) {
    for (const auto& adapter : machine.adapters()) {
        if (emulator::SpiChip* chip = adapter->spi().chip()) {
            shown.flash.emplace_back(chip->contents().begin(), chip->contents().end());
        }
        if (adapter->nor() != nullptr && adapter->nor()->chip() != nullptr) {
            const auto contents = adapter->nor()->chip()->contents();
            shown.flash.emplace_back(contents.begin(), contents.end());
        }
    }
    shown.misuses = journal.misuses();
}

void write_files(const Volume& files, const std::filesystem::path& folder) {
    for (const auto& [name, file] : files) {
        if (file.folder) {
            std::filesystem::create_directories(folder / name);
            continue;
        }
        std::ofstream out(folder / name, std::ios::binary);
        out.write(reinterpret_cast<const char*>(file.bytes.data()),
                  static_cast<std::streamsize>(file.bytes.size()));
        out.close();
        if (file.read_only) {
            std::filesystem::permissions(folder / name, std::filesystem::perms::owner_read);
        }
    }
}

Volume read_files(const lab::Lab& lab) {
    Volume files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(lab.folder())) {
        const std::string name = std::filesystem::relative(entry.path(), lab.folder()).string();
        files[name] = {entry.is_directory() ? lab::Bytes{} : lab.read_file(name), false,
                       entry.is_directory()};
    }
    return files;
}

Shown run_in_process(const Story& story) {
    Shown shown;
    lab::Lab files_and_clock;
    write_files(story.files, files_and_clock.folder());
    emulator::VirtualClock clock;
    emulator::ImageFiles images;
    const auto machine = emulator::build_machine(story.machine, clock, images);
    machine->assign_bars();
    listen(*machine, shown.cycles);
    emulator::Firmware in_process(*machine, clock, files_and_clock.folder());
    for (const Step& step : story.steps) {
        if (step.run.empty()) {
            continue;
        }
        const std::size_t before = in_process.terminal().transcript().size();
        in_process.terminal().press(step.keys);
        std::vector<std::string> arguments = lab::words(step.run);
        arguments.insert(arguments.begin(), emulator::kCommandName);
        const EFI_STATUS status =
            emulator::run_program(in_process, emulator::Shell::kCurrent, arguments);
        shown.consoles.push_back(comparable(in_process.terminal().transcript().substr(before)));
        shown.statuses.push_back("0x" + emulator::hex(status & 0xFF, 1));
        EXPECT_EQ(in_process.resources(), emulator::Resources{}) << step.run;
    }
    shown.files = read_files(files_and_clock);
    collect_hardware(*machine, machine->journal(), shown);
    return shown;
}

/// One start of a guest, and the stories that run in it, several each in a folder of its own.
struct Boot {
    std::string name;
    const Platform* platform;
    std::vector<std::string> stories;
};

void PrintTo(const Boot& boot, std::ostream* out) {
    *out << boot.name;
}

/// A story in a guest: its machine, and what came out.
struct Run {
    Run(const std::string& name, bool alone)
        : folder(alone ? "" : name + "/"),
          story(load_story(QFU_SOURCE_DIR "/tests/firmware/stories/" + name + ".toml")),
          machine(emulator::build_machine(story.machine, clock, images)) {
        listen(*machine, shown.cycles);
    }

    std::string folder; ///< where its files are, "" or with a slash behind it
    emulator::SteadyClock clock;
    emulator::ImageFiles images;
    Story story;
    std::unique_ptr<emulator::Machine> machine;
    Shown shown;
};
using Runs = std::vector<std::unique_ptr<Run>>;

/// A start-up script that keeps each step's output and exit status in files of its own. Each time
/// that it loads the driver, the guest has the next story's machine.
std::string script_of(const Runs& runs, const Platform& platform) {
    std::string script = "@echo -off\r\n";
    for (std::size_t r = 0; r < runs.size(); ++r) {
        script += platform.driver ? "load fs0:\\bus-driver.efi\r\n" : "";
        script += "fs0:\r\ncd \\" + runs[r]->folder + "\r\n";
        for (std::size_t i = 0; i < runs[r]->story.steps.size(); ++i) {
            const Step& step = runs[r]->story.steps[i];
            const std::string n = std::to_string(i);
            script += "echo @@step " + std::to_string(r) + " " + n + "\r\n";
            script += (step.run.empty() ? step.shell : "qfu " + step.run) + " >a ~out" + n + "\r\n";
            script += "echo %lasterror% >a ~status" + n + "\r\n";
        }
        script += "@echo -off\r\n"; // a step's script may have turned it on
    }
    return script + "reset -s\r\n";
}

/// What is typed at the guest's console while the stories run.
std::string keys_at(const Runs& runs, const std::string& line) {
    constexpr std::string_view kStep = "@@step ";
    const std::size_t at = line.find(kStep);
    if (at == line.npos) {
        return "";
    }
    std::istringstream numbers(line.substr(at + kStep.size()));
    std::size_t run = 0;
    std::size_t step = 0;
    numbers >> run >> step;
    return runs[run]->story.steps[step].keys;
}

/// Takes a story's folder out of the guest's volume, with the outputs and statuses of its steps.
void collect(Run& run, const Volume& volume) {
    Volume files;
    for (const auto& [name, file] : volume) {
        if (name.starts_with(run.folder)) {
            files[name.substr(run.folder.size())] = file;
        }
    }
    for (const char* ours : {"startup.nsh", "qfu.efi", "qfu.man", "bus-driver.efi"}) {
        files.erase(ours);
    }
    for (std::size_t i = 0; i < run.story.steps.size(); ++i) {
        const std::string out = "~out" + std::to_string(i);
        const std::string status = "~status" + std::to_string(i);
        const std::string console = files[out].text();
        for (const std::string& text : run.story.steps[i].prints) {
            EXPECT_NE(console.find(text), std::string::npos) << text << "\nis not in\n" << console;
        }
        if (!run.story.steps[i].run.empty()) {
            run.shown.consoles.push_back(comparable(console));
            const std::string value = files[status].text();
            run.shown.statuses.push_back(value.substr(0, value.find('\r')));
        }
        files.erase(out);
        files.erase(status);
    }
    run.shown.files = files;
    collect_hardware(*run.machine, run.machine->journal(), run.shown);
}

Runs run_in_guest(const Boot& boot) {
    Runs runs;
    Volume volume;
    add_program(volume, *boot.platform);
    for (const std::string& name : boot.stories) {
        runs.push_back(std::make_unique<Run>(name, boot.stories.size() == 1));
        const std::string& folder = runs.back()->folder;
        if (!folder.empty()) {
            volume[name].folder = true;
        }
        for (const auto& [file, contents] : runs.back()->story.files) {
            volume[folder + file] = contents;
        }
    }
    const auto at_console = [&runs](const std::string& line) { return keys_at(runs, line); };
    const std::string script = script_of(runs, *boot.platform);
    GuestResult guest;
    if (boot.platform->driver) {
        emulator::DriverBridge bridge(*runs.front()->machine);
        std::for_each(runs.begin() + 1, runs.end(),
                      [&](const auto& run) { bridge.then(*run->machine); });
        guest = run_guest(*boot.platform, bridge, volume, script, at_console);
    } else {
        emulator::QemuBridge bridge(*runs.front()->machine);
        guest = run_guest(*boot.platform, bridge, volume, script, at_console);
    }
    for (const auto& run : runs) {
        collect(*run, guest.volume);
    }
    return runs;
}

void expect_same(const Shown& in_process, const Shown& in_guest, const Story& story) {
    EXPECT_EQ(in_process.consoles, in_guest.consoles);
    EXPECT_EQ(in_process.statuses, in_guest.statuses);
    EXPECT_EQ(comparable(in_process.cycles), comparable(in_guest.cycles));
    EXPECT_TRUE(in_process.flash == in_guest.flash) << "flash contents differ";
    std::vector<std::string> names;
    for (const auto& [name, file] : in_process.files) {
        names.push_back(name);
        const auto twin = in_guest.files.find(name);
        EXPECT_TRUE(twin != in_guest.files.end() && twin->second == file) << name;
    }
    for (const auto& [name, file] : in_guest.files) {
        EXPECT_TRUE(std::ranges::count(names, name) == 1) << name << " is only in the guest";
    }
    EXPECT_EQ(in_process.misuses, in_guest.misuses);
    for (const std::string& misuse : in_guest.misuses) {
        EXPECT_TRUE(std::ranges::any_of(story.misuse, [&](const std::string& announced) {
            return misuse.find(announced) != misuse.npos;
        })) << misuse;
    }
}

/// Each story under the firmware of x86-64, and what else the program runs on.
std::vector<Boot> boots() {
    std::vector<Boot> result;
    for (const auto& file :
         std::filesystem::directory_iterator(QFU_SOURCE_DIR "/tests/firmware/stories")) {
        const std::string name = file.path().stem().string();
        result.push_back({name, &kX64, {name}});
    }
    std::ranges::sort(result, {}, &Boot::name);
    result.push_back({"clang_bar0", &kX64Clang, {"bar0"}});
    result.push_back({"edk2_nor_and_spi", &kX64Edk2, {"nor_and_spi"}});
    result.push_back({
        "aarch64", &kAArch64, {"indexed", "bar0", "nor", "nor_and_spi", "several", "phy"}
    });
    return result;
}

/// The page's table, a row for each platform of the boots.
std::string table_of_boots() {
    std::map<std::string, std::string> stories;
    std::map<std::string, const Platform*> platforms;
    for (const Boot& boot : boots()) {
        platforms[boot.platform->name] = boot.platform;
        for (const std::string& story : boot.stories) {
            std::string& list = stories[boot.platform->name];
            list += (list.empty() ? "" : ", ") + story;
        }
    }
    std::string table = "| guest | machine | firmware and shell | program | adapters | stories |\n"
                        "|---|---|---|---|---|---|\n";
    for (const auto& [name, platform] : platforms) {
        const std::string& machine = platform->qemu[2];
        table += "| " + platform->qemu[0] + " | " + machine.substr(0, machine.find(',')) + " | `" +
                 platform->code + "` | `build/" + platform->build + "/qfu.efi` | " +
                 (platform->driver ? "behind a driver" : "on the bus") + " | " + stories[name] +
                 " |\n";
    }
    return table;
}

TEST(TestedOn, ThePageHasWhatTheTestsRun) {
    const auto page = read_bytes(QFU_SOURCE_DIR "/docs/tested-on.md");
    EXPECT_NE(std::string(page.begin(), page.end()).find("\n\n" + table_of_boots() + "\n"),
              std::string::npos)
        << "docs/tested-on.md must hold this table:\n"
        << table_of_boots();
}

class Twins : public testing::TestWithParam<Boot> {};

TEST_P(Twins, ShowTheSame) {
    for (const auto& run : run_in_guest(GetParam())) {
        SCOPED_TRACE(run->folder);
        expect_same(run_in_process(run->story), run->shown, run->story);
    }
}

INSTANTIATE_TEST_SUITE_P(Stories, Twins, testing::ValuesIn(boots()),
                         [](const auto& boot) { return boot.param.name; });

} // namespace
