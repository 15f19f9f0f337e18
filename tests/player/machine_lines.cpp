#include "machine_lines.h"

#include "support/input_error.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <unistd.h>

namespace session {
namespace {

using Words = std::vector<std::string>;

/// The machines that most sessions use: an adapter of each interface kind with one chip.
const std::map<std::string, Words> kUsual = {
    {"kind1", {"0xC709", "spi", "W25X40"}    },
    {"kind2", {"0xC703", "spi", "W25X40"}    },
    {"kind4", {"0xC705", "spi", "W25X40"}    },
    {"nor",   {"0xC703", "nor", "0x257E00EC"}},
};

/// A value as a machine file has it: numbers as they are, all else in quotes.
std::string value_of(const std::string& word) {
    return std::isdigit(static_cast<unsigned char>(word[0])) != 0 ? word : '"' + word + '"';
}

} // namespace

std::vector<std::string> split(const std::string& line) {
    Words words;
    bool quoted = false;
    bool inside = false;
    for (const char c : line) {
        if (c == '"') {
            quoted = !quoted;
            inside = inside || quoted;
            if (quoted) {
                words.emplace_back();
            }
        } else if (c == ' ' && !quoted) {
            inside = false;
        } else {
            if (!inside) {
                words.emplace_back();
                inside = true;
            }
            words.back() += c;
        }
    }
    return words;
}

void MachineLines::add(const std::string& toml, std::size_t line) {
    text_.push_back(toml);
    lines_.push_back(line);
}

void MachineLines::add_table(const std::string& head, const Words& words, std::size_t first,
                             std::size_t line) {
    add(head, line);
    for (std::size_t i = first; i + 1 < words.size(); i += 2) {
        add(words[i] + " = " + value_of(words[i + 1]), line);
    }
    if ((words.size() - first) % 2 != 0) {
        throw support::InputError(words.back() + " needs a value");
    }
}

void MachineLines::start(const Words& words, std::size_t line) {
    *this = {};
    if (words.size() == 1) {
        return;
    }
    const auto usual = kUsual.find(words[1]);
    if (usual == kUsual.end()) {
        file_ = words[1];
        return;
    }
    const Words& machine = usual->second;
    take({"adapter", machine[0]}, line);
    take({machine[1], words.size() > 2 ? words[2] : machine[2]}, line);
}

bool MachineLines::take(const Words& words, std::size_t line) {
    const std::string& what = words[0];
    if (what == "adapters") {
        for (std::size_t i = 2; i < words.size(); ++i) {
            take({"adapter", words[i], "revision", "0x10"}, line);
            take({"spi", words[1]}, line);
        }
        return true;
    }
    if (what != "adapter" && what != "spi" && what != "nor" && what != "phy" && what != "fault" &&
        what != "time") {
        return false;
    }
    if (words.size() < 2) {
        throw support::InputError(what + " needs a value");
    }
    if (what == "adapter") {
        Words with_slot = {"device"};
        with_slot.insert(with_slot.end(), words.begin() + 1, words.end());
        if (std::ranges::find(words, "slot") == words.end()) {
            with_slot.insert(with_slot.end(), {"slot", std::to_string(next_slot_)});
        }
        ++next_slot_;
        add_table("[[adapter]]", with_slot, 0, line);
    } else if (what == "spi" || what == "nor") {
        add("[adapter." + what + "]", line);
        add((what == "spi" ? "part = " : "id = ") + value_of(words[1]), line);
        if (words.size() == 4) {
            add(words[2] + " = " + value_of(words[3]), line);
        }
    } else if (what == "phy") {
        add_table("[adapter.phy]", words, 1, line);
    } else if (what == "time") {
        time_ = words[1];
    } else if (words[1] == "power") {
        add("[[adapter.fault]]", line);
        add("kind = \"power\"", line);
        add_table("", words, 2, line);
    } else if (words.size() < 3) {
        throw support::InputError("a fault has a place and a kind");
    } else if (words[1] == "call") {
        add("[[firmware_fault]]", line);
        add("call = " + value_of(words[2]), line);
        add_table("", words, 3, line);
    } else {
        add("[[adapter." + words[1] + ".fault]]", line);
        add("kind = " + value_of(words[2]), line);
        add_table("", words, 3, line);
    }
    return true;
}

emulator::MachineDescription MachineLines::describe() const {
    if (!file_.empty()) {
        auto machine = emulator::load_machine_file(QFU_SOURCE_DIR "/emulator/machines/" + file_);
        for (auto& adapter : machine.adapters) {
            // A session starts with blank chips and keeps nothing.
            if (adapter.spi) {
                adapter.spi->image.clear();
            }
            if (adapter.nor) {
                adapter.nor->image.clear();
            }
        }
        return machine;
    }
    std::string name = (std::filesystem::temp_directory_path() / "session-XXXXXX").string();
    close(mkstemp(name.data()));
    {
        std::ofstream out(name);
        out << (time_.empty() || time_ == "short" ? "" : "time = " + value_of(time_)) << '\n';
        for (const std::string& line : text_) {
            out << line << '\n';
        }
    }
    try {
        auto machine = emulator::load_machine_file(name);
        std::filesystem::remove(name);
        if (time_ == "short") {
            machine.times = {0, 10, 1};
        }
        return machine;
    } catch (const support::InputError& error) {
        std::filesystem::remove(name);
        // Behind the name are the file's own line and what is wrong with it.
        const std::string text = error.what();
        const std::size_t at = text.find(name);
        const std::size_t end = text.find(": ", at == text.npos ? 0 : at);
        throw support::InputError(end == text.npos ? text : text.substr(end + 2));
    }
}

std::size_t MachineLines::line_of(std::size_t description_line) const {
    constexpr std::size_t kBefore = 2; // lines count from 1, and "time" has the first
    return description_line >= kBefore && description_line - kBefore < lines_.size()
               ? lines_[description_line - kBefore]
               : 0;
}

} // namespace session
