#include "player.h"

#include "conditions.h"
#include "machine_lines.h"
#include "support/input_error.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <utility>

namespace session {

namespace fs = std::filesystem;
using lab::Bytes;

namespace {

/// What is printed in front of erase and write progress: a return and 56 spaces.
const std::string kBlank = "\r" + std::string(56, ' ');

bool is_setting(const std::string& line) {
    static const std::set<std::string> kFirstWords = {
        "machine", "adapter", "adapters", "spi",  "nor",   "phy",  "fault",  "time",
        "shell",   "no",      "put",      "fill", "keys:", "text", "guests:"};
    return line.starts_with("$ ") || line.starts_with("#") ||
           (!line.empty() && kFirstWords.contains(line.substr(0, line.find(' '))));
}

void replace_all(std::string& text, std::string_view from, std::string_view to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != text.npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

/// The address in memory of bytes that do not verify, which differs from run to run.
void hide_source_address(std::string& line) {
    constexpr std::string_view kSource = "Source(0x";
    const std::size_t at = line.find(kSource);
    if (at != line.npos) {
        const std::size_t from = at + kSource.size();
        line.replace(from, line.find(')', from) - from, "X");
    }
}

/// Takes away the list of arguments with which qfu starts, or says that it is not there.
void imply_arguments(Lines& output, const Command& command) {
    constexpr std::size_t kListed = 50; // qfu drops the rest
    Lines echo = {"[0]: " + std::string(emulator::kCommandName)};
    for (std::size_t i = 1; i < std::min(command.words.size(), kListed); ++i) {
        echo.push_back("[" + std::to_string(i) + "]: " + command.words[i]);
    }
    if (output.size() >= echo.size() &&
        std::ranges::equal(std::span(output).first(echo.size()), echo)) {
        output.erase(output.begin(), output.begin() + static_cast<std::ptrdiff_t>(echo.size()));
    } else {
        output.insert(output.begin(), "<NO ARGUMENTS>");
    }
}

class Player {
  public:
    Player(const fs::path& file, const BeforeCommand& before) : file_(file), before_(before) {
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) {
            in_guests_ = in_guests_ || line.starts_with("guests:");
            lines().push_back(line);
        }
        if (lines().empty()) {
            throw SessionError(file.string() + ": there is no such session");
        }
        volume_.write("spilist.bin", lab::shipped_chip_list());
        std::string image;
        for (int i = 0; i < 200; ++i) {
            image += "This is image. ";
        }
        volume_.write("image.bin", image);
    }

    Playback play() {
        while (at_ < lines().size()) {
            const std::size_t start = at_;
            try {
                play_line();
            } catch (const support::InputError& error) {
                fail(start, error.what());
            } catch (const std::logic_error& error) { // a number or a word is missing
                fail(start, std::string("cannot be read: ") + error.what());
            }
        }
        end_stage();
        for (const auto& [name, text] : texts_) {
            if (!text.used) {
                fail(text.line, "nothing uses this text");
            }
        }
        return std::move(result_);
    }

  private:
    struct Text {
        Lines lines;
        std::size_t line;
        bool used;
    };

    [[noreturn]] void fail(std::size_t line, const std::string& what) const {
        throw SessionError(file_.string() + ":" + std::to_string(line + 1) + ": " + what);
    }

    Lines& lines() { return result_.expected; }
    Stage& stage() { return result_.stages.back(); }

    void play_line() {
        const std::string line = lines()[at_++];
        result_.shown.push_back(line);
        const auto words = split(line);
        if (line.empty() || line[0] == '#' || words[0] == "guests:") {
            return;
        }
        if (words[0] == "$") {
            play_command(line.substr(2));
        } else if (words[0] == "keys:") {
            keys_ = line.substr(std::string_view("keys: ").size());
        } else if (words[0] == "text") {
            read_text(words.at(1));
        } else if (words[0] == "put") {
            put(words);
        } else if (words[0] == "fill") {
            begin_stage();
            fill(line, words);
        } else {
            set_up(line, words);
        }
    }

    /// Lines that come before a machine's first command.
    void set_up(const std::string& line, const Lines& words) {
        static const std::map<std::string, emulator::Shell> kShells = {
            {"no-parameters", emulator::Shell::kNoParameters},
            {"older",         emulator::Shell::kOlder       },
            {"none",          emulator::Shell::kNone        }
        };
        if (words[0] == "machine") {
            end_stage();
            machine_.start(words, at_ - 1);
        } else if (open_) {
            throw support::InputError("this machine is already in use; start with \"machine\"");
        } else if (words[0] == "shell") {
            next_.shell = kShells.at(words.at(1));
        } else if (line == "no root bridge") {
            next_.root_bridge = false;
        } else if (!machine_.take(words, at_ - 1)) {
            throw support::InputError("no line of a session starts with " + words[0]);
        }
    }

    void read_text(const std::string& name) {
        Text text{{}, at_ - 1, false};
        while (at_ < lines().size() && lines()[at_] != "end") {
            text.lines.push_back(lines()[at_]);
            result_.shown.push_back(lines()[at_++]);
        }
        if (at_ == lines().size()) {
            fail(text.line, "this text has no \"end\"");
        }
        result_.shown.push_back(lines()[at_++]);
        texts_["@" + name] = text;
    }

    /// put NAME = pattern SIZE [SEED], put NAME = "TEXT" or put NAME @OFFSET = BYTE...
    void put(const Lines& words) {
        const std::string& name = words.at(1);
        if (words.at(2) == "=" && words.at(3) == "pattern") {
            const auto seed = words.size() > 5 ? std::stoul(words[5]) : 1;
            volume_.write(name, lab::pattern(std::stoul(words.at(4), nullptr, 0),
                                             static_cast<std::uint32_t>(seed)));
        } else if (words[2] == "=") {
            volume_.write(name, words.at(3));
        } else {
            Bytes bytes = volume_.read(name);
            std::size_t at = std::stoul(words[2].substr(1), nullptr, 16);
            bytes.resize(std::max(bytes.size(), at + words.size() - 4));
            for (std::size_t i = 4; i < words.size(); ++i) {
                bytes[at++] = static_cast<std::uint8_t>(std::stoul(words[i], nullptr, 16));
            }
            volume_.write(name, bytes);
        }
        if (open_ && !stage().commands.empty()) {
            stage().process_only = "a file changes between its commands";
        }
    }

    /// fill BYTE or fill @ADDRESS = NAME, in every chip
    void fill(const std::string& line, const Lines& words) {
        const std::string parts = words.size() == 2 ? "rest " + words[1] : line.substr(5);
        for (const auto& [place, chip] : chips_of(*stage().machine)) {
            std::ranges::copy(described_flash(parts, chip, {}, volume_.path()), chip.begin());
        }
        stage().flash = contents_of(*stage().machine);
    }

    void begin_stage() {
        if (open_) {
            return;
        }
        Stage stage = std::exchange(next_, {});
        stage.description = machine_.describe();
        if (!stage.description.firmware_faults.empty()) {
            stage.process_only = "a guest's firmware does not fail on demand";
        } else if (stage.shell != emulator::Shell::kCurrent || !stage.root_bridge) {
            stage.process_only = "a guest has a shell and a root bridge";
        }
        stage.machine = emulator::build_machine(stage.description, clock_, images_);
        stage.machine->assign_bars();
        stage.flash = contents_of(*stage.machine);
        stage.files = read_files(volume_.path());
        result_.stages.push_back(std::move(stage));
        open_ = true;
    }

    void end_stage() {
        if (open_) {
            stage().files_after = read_files(volume_.path());
            stage().flash_after = contents_of(*stage().machine);
            expect_no_idle_fault();
        }
        open_ = false;
        next_ = {};
    }

    void expect_no_idle_fault() {
        auto idle = emulator::idle_faults(stage().description, *stage().machine);
        for (const auto& fault : stage().description.firmware_faults) {
            const auto call = static_cast<std::size_t>(
                std::ranges::find(emulator::kNamedCalls, fault.call, &emulator::NamedCall::name) -
                emulator::kNamedCalls.begin());
            if (std::ranges::none_of(stage().observations, [&](const Observation& seen) {
                    return !seen.calls.empty() && seen.calls[call] >= fault.nth;
                })) {
                idle.push_back(fault.line);
            }
        }
        // A machine file serves several sessions, and not each of them meets its faults.
        if (!idle.empty() && !machine_.is_file()) {
            fail(machine_.line_of(idle.front()), "this fault never struck");
        }
    }

    /// The end of the lines that belong to the command before: its output and conditions.
    std::size_t end_of_command() const {
        std::size_t end = at_;
        bool block = false;
        for (; end < result_.expected.size(); ++end) {
            const std::string& line = result_.expected[end];
            if (!block && is_setting(line)) {
                break;
            }
            block = line == "registers:" || line == "cycles:" || (block && line != "end");
        }
        while (end > at_ && result_.expected[end - 1].empty()) {
            --end;
        }
        return end;
    }

    void play_command(const std::string& line) {
        begin_stage();
        const Command command{line, split(line), std::exchange(keys_, {})};
        const std::size_t end = end_of_command();
        const std::span<const std::string> below = std::span(lines()).subspan(at_, end - at_);
        const bool registers = std::ranges::find(below, "registers:") != below.end();
        const auto before = contents_of(*stage().machine);
        if (before_ && command.is_qfu()) {
            before_(stage(), command, clock_, volume_.path());
        }
        const bool cycles = in_guests_ || std::ranges::find(below, "cycles:") != below.end();
        stage().observations.push_back(
            run(stage(), command, clock_, volume_.path(), {cycles, registers}));
        stage().commands.push_back(command);
        show_output(command, below);
        show_conditions({stage(), stage().observations.back(), before, volume_.path()}, below);
        at_ = end;
    }

    void show_output(const Command& command, std::span<const std::string> below) {
        const Observation& seen = stage().observations.back();
        const std::size_t rest = is_refused(seen) ? kRefusal.size() : 0;
        Lines output = as_lines(seen.console.substr(0, seen.console.size() - rest));
        if (command.is_qfu()) {
            imply_arguments(output, command);
        }
        fold_texts(output, below);
        result_.shown.insert(result_.shown.end(), output.begin(), output.end());
    }

    /// Replaces lines with the name of the text that stands for them, where the session does so.
    void fold_texts(Lines& output, std::span<const std::string> below) {
        std::size_t i = 0;
        for (const std::string& line : below) {
            const auto text = texts_.find(line);
            if (text == texts_.end()) {
                ++i;
                continue;
            }
            const Lines& wanted = text->second.lines;
            text->second.used = true;
            if (i + wanted.size() <= output.size() &&
                std::ranges::equal(std::span(output).subspan(i, wanted.size()), wanted)) {
                const auto from = output.begin() + static_cast<std::ptrdiff_t>(i);
                *from = line;
                output.erase(from + 1, from + static_cast<std::ptrdiff_t>(wanted.size()));
            }
            ++i;
        }
    }

    void show_conditions(const After& after, std::span<const std::string> below) {
        Lines needed = needed_lines(after.seen);
        for (std::size_t i = 0; i < below.size(); ++i) {
            const std::string& line = below[i];
            if (line == "registers:" || line == "cycles:") {
                result_.shown.push_back(line);
                Lines block = line == "cycles:" ? after.seen.cycles : after.seen.registers;
                const std::size_t first = i + 1;
                while (i < below.size() && below[i] != "end") {
                    ++i;
                }
                fold_texts(block, below.subspan(first, i - first));
                result_.shown.insert(result_.shown.end(), block.begin(), block.end());
                result_.shown.emplace_back("end");
            } else if (is_condition(line)) {
                if (const auto held = as_it_holds(line, after)) {
                    result_.shown.push_back(*held);
                    std::erase(needed, *held);
                }
            }
        }
        result_.shown.insert(result_.shown.end(), needed.begin(), needed.end());
    }

    fs::path file_;
    BeforeCommand before_;
    Playback result_;
    std::size_t at_ = 0; ///< the next line
    bool in_guests_ = false;
    std::map<std::string, Text> texts_; ///< by the word that stands for each
    std::string keys_;                  ///< for the next command
    MachineLines machine_;
    Stage next_;        ///< what the lines say so far besides the machine
    bool open_ = false; ///< the last stage is the current machine's
    emulator::VirtualClock clock_;
    emulator::ImageFiles images_;
    lab::ScratchFolder volume_;
};

} // namespace

Lines as_lines(const std::string& console) {
    Lines lines;
    std::istringstream in(console);
    for (std::string line; std::getline(in, line);) {
        const bool ended = !in.eof();
        const bool whole = ended && line.ends_with('\r');
        if (whole) {
            line.pop_back();
        }
        hide_source_address(line);
        replace_all(line, kBlank, "<BLANK>");
        replace_all(line, "\r", "<CR>");
        line += whole ? "" : ended ? "<LF>" : "<END>";
        if (is_setting(line) || is_condition(line) || line.starts_with('\\')) {
            line.insert(0, "\\");
        }
        lines.push_back(line);
    }
    if (!lines.empty() && lines.back().empty()) {
        lines.back() = "<EMPTY>";
    }
    return lines;
}

void write_lines(const fs::path& file, const Lines& lines) {
    std::ofstream out(file, std::ios::binary);
    for (const std::string& line : lines) {
        out << line << '\n';
    }
}

bool expect_same(const std::string& name, const Lines& expected, const Lines& shown) {
    if (shown == expected) {
        return true;
    }
    const lab::ScratchFolder folder;
    write_lines(folder.path() / "expected", expected);
    write_lines(folder.path() / "shown", shown);
    std::cout << std::flush;
    static_cast<void>(std::system(("cd '" + folder.path().string() + "' && diff -u --label '" +
                                   name + "' --label 'what came out' expected shown")
                                      .c_str()));
    return false;
}

Playback play(const fs::path& file, const BeforeCommand& before) {
    return Player(file, before).play();
}

} // namespace session
