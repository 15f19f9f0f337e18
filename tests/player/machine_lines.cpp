#include "machine_lines.h"

#include "support/input_error.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iomanip>
#include <map>
#include <sstream>

namespace session {
namespace {

using Words = std::vector<std::string>;

/// The machines that most sessions use: an adapter of each interface kind with one chip.
const std::map<std::string, Words> kUsual = {
    {"kind1", {"adapter 0xC709", "spi ", "W25X40"}    },
    {"kind2", {"adapter 0xC703", "spi ", "W25X40"}    },
    {"kind4", {"adapter 0xC705", "spi ", "W25X40"}    },
    {"nor",   {"adapter 0xC703", "nor ", "0x257E00EC"}},
};

/// How long chips are busy; "short" is a poll or two.
const std::map<std::string, emulator::BusyTimes> kTimes = {
    {"none",    emulator::kNeverBusy},
    {"short",   {0, 10, 1}          },
    {"typical", {}                  },
};

/// What a line is in a machine file: a table, and the key of the next word. Further words are keys
/// and values.
const std::map<std::string, Words> kTables = {
    {"adapter",     {"[[adapter]]", "device"}             },
    {"spi",         {"[adapter.spi]", "part"}             },
    {"nor",         {"[adapter.nor]", "id"}               },
    {"phy",         {"[adapter.phy]"}                     },
    {"fault spi",   {"[[adapter.spi.fault]]", "kind"}     },
    {"fault nor",   {"[[adapter.nor.fault]]", "kind"}     },
    {"fault phy",   {"[[adapter.phy.fault]]", "kind"}     },
    {"fault power", {"[[adapter.fault]]", "kind", "power"}},
    {"fault call",  {"[[firmware_fault]]", "call"}        },
};

} // namespace

std::vector<std::string> split(const std::string& line) {
    Words words;
    std::istringstream in(line);
    for (std::string word; in >> std::quoted(word, '"', '^');) {
        words.push_back(word);
    }
    return words;
}

void MachineLines::take(const std::string& line) {
    const Words words = split(line);
    if (words[0] == "machine") {
        start(words);
    } else if (words[0] == "time") {
        times_ = kTimes.at(words.at(1));
    } else if (words[0] == "adapters") {
        for (std::size_t i = 2; i < words.size(); ++i) {
            take("adapter " + words[i] + " revision 0x10");
            take("spi " + words[1]);
        }
    } else {
        add_table(words);
        lines_.resize(static_cast<std::size_t>(std::ranges::count(toml_, '\n')), line);
    }
}

void MachineLines::start(const Words& words) {
    *this = {};
    if (words.size() == 1) {
        return;
    }
    const auto usual = kUsual.find(words[1]);
    if (usual != kUsual.end()) {
        const Words& machine = usual->second;
        take(machine[0]);
        take(machine[1] + (words.size() > 2 ? words[2] : machine[2]));
        return;
    }
    std::ifstream file(QFU_SOURCE_DIR "/emulator/machines/" + words[1]);
    if (!file) {
        throw support::InputError("there is no such machine");
    }
    for (std::string entry; std::getline(file, entry); lines_.emplace_back()) {
        // A session starts with blank chips and keeps nothing.
        toml_ += (entry.starts_with("image") ? "" : entry) + '\n';
    }
}

void MachineLines::add_table(const Words& words) {
    const bool fault = words[0] == "fault";
    const auto table = kTables.find(fault ? "fault " + words.at(1) : words[0]);
    if (table == kTables.end()) {
        throw support::InputError("a machine has no such line");
    }
    Words entries(table->second.begin() + 1, table->second.end());
    entries.insert(entries.end(), words.begin() + (fault ? 2 : 1), words.end());
    if (words[0] == "adapter") {
        const std::string slot = std::to_string(next_slot_++);
        if (std::ranges::find(words, "slot") == words.end()) {
            entries.insert(entries.end(), {"slot", slot});
        }
    }
    toml_ += table->second[0] + '\n';
    for (std::size_t i = 0; i < entries.size(); i += 2) {
        const std::string& value = entries.at(i + 1);
        const bool number = std::isdigit(static_cast<unsigned char>(value[0])) != 0;
        toml_ += entries[i] + " = " + (number ? value : '"' + value + '"') + '\n';
    }
}

emulator::MachineDescription MachineLines::describe() const {
    auto machine = emulator::parse_machine(toml_, "machine");
    machine.times = times_;
    return machine;
}

} // namespace session
