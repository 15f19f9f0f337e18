#include "machine_lines.h"

#include "support/input_error.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>

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

/// What a line is in a machine file: a table, and the keys of the values that follow its first
/// words. Further words are keys and values.
struct Table {
    std::string_view line;
    std::string_view head;
    std::string_view key; ///< of the next word; empty: the line has only keys and values
};
constexpr std::array kTables = {
    Table{"adapter",     "[[adapter]]",                         "device"},
    Table{"spi",         "[adapter.spi]",                       "part"  },
    Table{"nor",         "[adapter.nor]",                       "id"    },
    Table{"phy",         "[adapter.phy]",                       ""      },
    Table{"fault spi",   "[[adapter.spi.fault]]",               "kind"  },
    Table{"fault nor",   "[[adapter.nor.fault]]",               "kind"  },
    Table{"fault phy",   "[[adapter.phy.fault]]",               "kind"  },
    Table{"fault power", "[[adapter.fault]]\nkind = \"power\"", ""      },
    Table{"fault call",  "[[firmware_fault]]",                  "call"  },
};

/// A key with a value as a machine file has it: numbers as they are, all else in quotes.
std::string entry(std::string_view key, const std::string& word) {
    const bool number = std::isdigit(static_cast<unsigned char>(word[0])) != 0;
    return std::string(key) + " = " + (number ? word : '"' + word + '"');
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
    text_ += toml + '\n';
    lines_.resize(lines_.size() + 1 + static_cast<std::size_t>(std::ranges::count(toml, '\n')),
                  line);
}

void MachineLines::start(const Words& words, std::size_t line) {
    *this = {};
    const auto usual = words.size() > 1 ? kUsual.find(words[1]) : kUsual.end();
    if (usual != kUsual.end()) {
        const Words& machine = usual->second;
        take({"adapter", machine[0]}, line);
        take({machine[1], words.size() > 2 ? words[2] : machine[2]}, line);
    } else if (words.size() > 1) {
        file_ = words[1];
    }
}

bool MachineLines::take(const Words& words, std::size_t line) {
    if (words[0] == "adapters") {
        for (std::size_t i = 2; i < words.size(); ++i) {
            take({"adapter", words[i], "revision", "0x10"}, line);
            take({"spi", words[1]}, line);
        }
        return true;
    }
    if (words[0] == "time") {
        time_ = words.at(1);
        return true;
    }
    std::size_t i = words[0] == "fault" ? 2 : 1;
    const std::string what = i == 1 ? words[0] : words[0] + " " + words.at(1);
    const auto* const table = std::ranges::find(kTables, what, &Table::line);
    if (table == kTables.end()) {
        return false;
    }
    add(std::string(table->head), line);
    if (!table->key.empty()) {
        add(entry(table->key, words.at(i++)), line);
    }
    for (; i < words.size(); i += 2) {
        add(entry(words[i], words.at(i + 1)), line);
    }
    if (what == "adapter") {
        if (std::ranges::find(words, "slot") == words.end()) {
            add(entry("slot", std::to_string(next_slot_)), line);
        }
        ++next_slot_;
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
    const bool in_file = !time_.empty() && time_ != "short";
    auto machine =
        emulator::parse_machine((in_file ? entry("time", time_) : "") + '\n' + text_, "machine");
    if (time_ == "short") {
        machine.times = {0, 10, 1};
    }
    return machine;
}

std::size_t MachineLines::line_of(std::size_t description_line) const {
    constexpr std::size_t kBefore = 2; // lines count from 1, and "time" has the first
    return lines_.at(description_line - kBefore);
}

} // namespace session
