#include "registers.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace session {
namespace {

/// Index registers in BAR 5 with their data registers: SPI, and the PHY test's three.
constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kIndexes = {
    {
     {"BAR5+000A8", "BAR5+000AC"},
     {"BAR5+000B0", "BAR5+000B4"},
     {"BAR5+00178", "BAR5+0017C"},
     {"BAR5+001F8", "BAR5+001FC"},
     }
};

/// True when the access goes to the data register of the index register that was written before.
bool follows(const std::string& access, const std::string& index) {
    return std::ranges::any_of(kIndexes, [&](const auto& pair) {
        return index.starts_with(pair.first) && access.starts_with(pair.second);
    });
}

bool is_index_write(const std::string& access) {
    return access.find('<') != access.npos && std::ranges::any_of(kIndexes, [&](const auto& pair) {
               return access.starts_with(pair.first);
           });
}

/// "BAR5+000A8<06000004" as "A8:06000004".
std::string short_index(const std::string& write) {
    constexpr std::size_t kDigits = 5;
    const std::size_t digit = write.find_first_not_of('0', kDigits);
    const std::size_t arrow = write.find('<');
    return write.substr(digit, arrow - digit) + ":" + write.substr(arrow + 1);
}

} // namespace

RegisterLines::RegisterLines(emulator::Machine& machine) : machine_(&machine) {
    machine.journal().listen_to_registers(
        [this](std::string_view line) { note(std::string(line)); });
}

RegisterLines::~RegisterLines() {
    machine_->journal().listen_to_registers(nullptr);
}

std::vector<std::string> RegisterLines::take() {
    if (!index_.empty()) {
        add(std::exchange(index_, {}));
    }
    return std::exchange(lines_, {});
}

void RegisterLines::note(const std::string& line) {
    // "0  BAR5+000A8 < 06000004"; the adapter's name is left out on a machine with one.
    std::string access = line;
    std::erase(access, ' ');
    const std::size_t name = line.find(' ');
    if (machine_->adapters().size() == 1) {
        access.erase(0, name);
    }
    if (!index_.empty()) {
        const std::string index = std::exchange(index_, {});
        if (follows(access, index)) {
            add(short_index(index) + access.substr(access.find_first_of("<>")));
            return;
        }
        add(index);
    }
    if (is_index_write(access)) {
        index_ = access;
    } else {
        add(access);
    }
}

void RegisterLines::add(const std::string& access) {
    const bool read = access.find('>') != access.npos;
    if (lines_.empty() || (last_was_read_ && !read)) {
        lines_.push_back(access);
    } else {
        lines_.back() += " " + access;
    }
    last_was_read_ = read;
}

} // namespace session
