#include "player.h"

#include "conditions.h"
#include "machine_lines.h"
#include "support/input_error.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <fstream>
#include <iostream>
#include <regex>
#include <set>
#include <utility>

namespace session {

namespace fs = std::filesystem;

namespace {

void replace_all(std::string& text, std::string_view from, std::string_view to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != text.npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

/// The console without what a session implies: the list of arguments with which qfu starts, and
/// the warning of a refusal.
std::string without_implied(const Command& command, const Observation& seen) {
    constexpr std::size_t kListed = 50; // qfu drops the rest
    const std::size_t rest = seen.refused() ? kRefusal.size() : 0;
    const std::string console = seen.console.substr(0, seen.console.size() - rest);
    if (command.words[0] != "qfu") {
        return console;
    }
    std::string echo = fmt::format("[0]: {}\r\n", emulator::command_name("qfu"));
    for (std::size_t i = 1; i < std::min(command.words.size(), kListed); ++i) {
        echo += fmt::format("[{}]: {}\r\n", i, command.words[i]);
    }
    return console.starts_with(echo) ? console.substr(echo.size()) : "<NO ARGUMENTS>\r\n" + console;
}

class Player {
  public:
    explicit Player(const BeforeCommand& before) : before_(before) {
        volume_.write("spilist.bin", lab::shipped_chip_list());
        std::string image;
        for (int i = 0; i < 200; ++i) {
            image += "This is image. ";
        }
        volume_.write("image.bin", image);
    }

    Playback play(const fs::path& file) {
        read(file);
        result_.stages.emplace_back();
        while (at_ < lines().size()) {
            result_.shown.push_back(lines()[at_++]);
            const auto words = split(line());
            if (!words.empty()) {
                if (!is_line(line())) {
                    throw support::InputError("this is no line of a session");
                }
                (this->*kLines.at(words[0]))(words);
            }
        }
        end_stage();
        result_.stages.pop_back();
        return std::move(result_);
    }

    /// The line that is played, for a complaint.
    std::string position() const { return at_ == 0 ? "" : result_.expected[at_ - 1] + ": "; }

    /// True when the line is more than output or a condition.
    static bool is_line(const std::string& line) {
        return kLines.contains(line.substr(0, line.find(' ')));
    }

  private:
    using Handler = void (Player::*)(const Lines& words);
    static const std::map<std::string, Handler> kLines; ///< by first word

    Lines& lines() { return result_.expected; }
    const std::string& line() { return lines()[at_ - 1]; }
    Stage& stage() { return result_.stages.back(); }

    /// Reads the file's lines and puts texts where they are used.
    void read(const fs::path& file) {
        std::map<std::string, Lines> texts;
        std::set<std::string> unused;
        Lines* text = nullptr; // that is being read
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) {
            if (text != nullptr && line == "end") {
                text = nullptr;
            } else if (text != nullptr) {
                text->push_back(line);
            } else if (line.starts_with("text ")) {
                const std::string name = "@" + line.substr(5);
                text = &texts[name];
                unused.insert(name);
            } else if (texts.contains(line)) {
                lines().insert(lines().end(), texts[line].begin(), texts[line].end());
                unused.erase(line);
            } else {
                lines().push_back(line);
            }
        }
        if (text != nullptr || lines().empty()) {
            throw support::InputError(text != nullptr ? "a text has no \"end\""
                                                      : "there is no such session");
        }
        if (!unused.empty()) {
            throw support::InputError("nothing uses " + *unused.begin());
        }
    }

    void ignore(const Lines& /*words*/) {}
    void play_in_guests(const Lines& /*words*/) { in_guests_ = true; }
    void press(const Lines& words) { keys_ = words.at(1); }
    void press_early(const Lines& words) { early_keys_ = words.at(2); }

    void start_machine(const Lines& /*words*/) {
        end_stage();
        machine_.take(line());
    }

    /// A line that comes before a machine's first command.
    void set_up(const Lines& words) {
        static const std::map<std::string, emulator::Shell> kShells = {
            {"no-parameters", emulator::Shell::kNoParameters},
            {"older",         emulator::Shell::kOlder       },
            {"none",          emulator::Shell::kNone        }
        };
        if (stage().machine) {
            throw support::InputError("this machine is already in use; start with \"machine\"");
        }
        if (words[0] == "shell") {
            stage().shell = kShells.at(words.at(1));
        } else if (words[0] == "variable") {
            stage().variables[words.at(1)] = words.at(3);
        } else if (line() == "no root bridge") {
            stage().root_bridge = false;
        } else {
            machine_.take(line());
        }
    }

    /// put NAME = pattern SIZE [SEED], put NAME = "TEXT" or put NAME @OFFSET = BYTE...
    /// "put NAME" puts the lines up to "end".
    void put(const Lines& words) {
        const std::string& name = words.at(1);
        if (words.size() == 2) {
            std::string text;
            for (; lines().at(at_) != "end"; ++at_) {
                text += lines()[at_] + '\n';
                result_.shown.push_back(lines()[at_]);
            }
            volume_.write(name, text);
            result_.shown.push_back(lines()[at_++]);
            return;
        }
        if (words.at(2) != "=") {
            lab::Bytes bytes = volume_.read(name);
            std::size_t at = std::stoul(words[2].substr(1), nullptr, 16);
            bytes.resize(std::max(bytes.size(), at + words.size() - 4));
            for (std::size_t i = 4; i < words.size(); ++i) {
                bytes[at++] = static_cast<std::uint8_t>(std::stoul(words[i], nullptr, 16));
            }
            volume_.write(name, bytes);
        } else if (words.at(3) == "pattern") {
            const auto seed = words.size() > 5 ? std::stoul(words[5]) : 1;
            volume_.write(name, lab::pattern(std::stoul(words.at(4), nullptr, 0),
                                             static_cast<std::uint32_t>(seed)));
        } else {
            volume_.write(name, words[3]);
        }
    }

    /// fill BYTE or fill @ADDRESS = NAME, in every chip
    void fill(const Lines& words) {
        begin_stage();
        const std::string parts = words.size() == 2 ? "rest " + words[1] : line().substr(5);
        for (const auto& [place, chip] : chips_of(*stage().machine)) {
            const lab::Bytes now(chip.begin(), chip.end());
            std::ranges::copy(described_flash(parts, now, {}, volume_.path()), chip.begin());
        }
    }

    void begin_stage() {
        if (!stage().machine) {
            stage().description = machine_.describe();
            stage().machine = emulator::build_machine(stage().description, clock_, images_);
            stage().machine->assign_bars();
        }
    }

    void end_stage() {
        if (stage().machine) {
            stage().files_after = lab::read_files(volume_.path());
            stage().flash_after = contents_of(*stage().machine);
            expect_no_idle_fault();
            result_.stages.emplace_back();
        }
        stage() = {};
    }

    void expect_no_idle_fault() {
        auto idle = emulator::idle_faults(stage().description, *stage().machine);
        for (const auto& fault : stage().description.firmware_faults) {
            const auto call =
                std::ranges::find(emulator::kNamedCalls, fault.call, &emulator::NamedCall::name) -
                emulator::kNamedCalls.begin();
            if (std::ranges::none_of(stage().observations, [&](const Observation& seen) {
                    return seen.calls.begin()[call] >= fault.nth;
                })) {
                idle.push_back(fault.line);
            }
        }
        // A machine file serves several sessions, and not each of them meets its faults.
        std::erase_if(idle, [&](std::size_t fault) { return machine_.line_of(fault).empty(); });
        if (!idle.empty()) {
            throw support::InputError("before this, a fault never struck: " +
                                      machine_.line_of(idle.front()));
        }
    }

    void play_command(const Lines& words) {
        begin_stage();
        const Flash before = contents_of(*stage().machine);
        if (stage().commands.empty()) {
            stage().files = lab::read_files(volume_.path());
            stage().flash = before;
        }
        const Command command{
            line().substr(2), {words.begin() + 1, words.end()},
             keys_, early_keys_
        };
        keys_.clear();
        early_keys_.clear();
        if (before_ && command.is_program()) {
            before_(stage(), command, clock_, volume_.path());
        }
        const auto below = lines_below();
        const bool log = in_guests_ || std::ranges::find(below, "end") != below.end();
        const Observation seen = run(stage(), command, clock_, volume_.path(), log);
        show(as_lines(without_implied(command, seen)));
        show(as_they_hold(below, {seen, before, contents_of(*stage().machine), volume_.path()}));
        stage().commands.push_back(command);
        stage().observations.push_back(seen);
        at_ += below.size();
    }

    /// The lines that belong to the command before: its output and conditions.
    std::span<const std::string> lines_below() {
        std::size_t end = at_;
        while (end < lines().size() && !is_line(lines()[end])) {
            ++end;
        }
        while (end > at_ && lines()[end - 1].empty()) {
            --end;
        }
        return std::span(lines()).subspan(at_, end - at_);
    }

    void show(const Lines& lines) {
        result_.shown.insert(result_.shown.end(), lines.begin(), lines.end());
    }

    BeforeCommand before_;
    Playback result_;
    std::size_t at_ = 0; ///< the next line
    bool in_guests_ = false;
    std::string keys_; ///< for the next command
    std::string early_keys_;
    MachineLines machine_;
    emulator::VirtualClock clock_;
    emulator::ImageFiles images_;
    lab::ScratchFolder volume_;
};

const std::map<std::string, Player::Handler> Player::kLines = {
    {"#",        &Player::ignore        },
    {"text",     &Player::ignore        }, // read before
    {"guests:",  &Player::play_in_guests},
    {"machine",  &Player::start_machine },
    {"adapter",  &Player::set_up        },
    {"adapters", &Player::set_up        },
    {"spi",      &Player::set_up        },
    {"nor",      &Player::set_up        },
    {"phy",      &Player::set_up        },
    {"fault",    &Player::set_up        },
    {"time",     &Player::set_up        },
    {"shell",    &Player::set_up        },
    {"no",       &Player::set_up        },
    {"variable", &Player::set_up        },
    {"put",      &Player::put           },
    {"fill",     &Player::fill          },
    {"keys:",    &Player::press         },
    {"early",    &Player::press_early   },
    {"$",        &Player::play_command  },
};

} // namespace

Lines as_lines(const std::string& console) {
    static const std::regex kSource("Source\\(0x[0-9A-Fa-f]*\\)"); // an address in memory
    const std::string kBlank = "\r" + std::string(56, ' ');        // in front of progress
    const std::string kEnd = "\r\n";
    Lines lines;
    for (std::size_t from = 0; from < console.size();) {
        const std::size_t end = std::min(console.find(kEnd, from), console.size());
        std::string line = console.substr(from, end - from);
        line = std::regex_replace(line, kSource, "Source(0xX)");
        replace_all(line, kBlank, "<BLANK>");
        replace_all(line, "\r", "<CR>");
        replace_all(line, "\n", "<LF>");
        if (Player::is_line(line) || is_condition(line) || line.starts_with('\\')) {
            line.insert(0, "\\");
        }
        lines.push_back(line + (end == console.size() ? "<END>" : ""));
        from = end + kEnd.size();
    }
    if (!lines.empty() && lines.back().empty()) {
        lines.back() = "<EMPTY>";
    }
    return lines;
}

bool expect_same(const std::string& name, const Lines& expected, const Lines& shown) {
    if (shown == expected) {
        return true;
    }
    const lab::ScratchFolder folder;
    folder.write("expected", fmt::format("{}\n", fmt::join(expected, "\n")));
    folder.write("shown", fmt::format("{}\n", fmt::join(shown, "\n")));
    const std::string diff = fmt::format("cd '{}' && diff -u --label '{}' --label 'what came out' "
                                         "expected shown",
                                         folder.path().string(), name);
    std::cout << std::flush;
    static_cast<void>(std::system(diff.c_str()));
    return false;
}

Playback play(const fs::path& file, const BeforeCommand& before) {
    Player player(before);
    try {
        return player.play(file);
    } catch (const std::exception& error) {
        throw support::InputError(file.string() + ": " + player.position() + error.what());
    }
}

} // namespace session
