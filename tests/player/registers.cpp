#include "registers.h"

#include <algorithm>
#include <array>

namespace session {
namespace {

/// Index registers in BAR 5 with their data registers: SPI, and the PHY test's three.
constexpr std::array<std::array<std::string_view, 2>, 4> kPairs = {
    {
     {"BAR5+000A8<", "BAR5+000AC"},
     {"BAR5+000B0<", "BAR5+000B4"},
     {"BAR5+00178<", "BAR5+0017C"},
     {"BAR5+001F8<", "BAR5+001FC"},
     }
};

/// True for a write to an index register and an access to its data register.
bool is_pair(const std::string& index, const std::string& data) {
    return std::ranges::any_of(kPairs, [&](const auto& pair) {
        return index.starts_with(pair[0]) && data.starts_with(pair[1]);
    });
}

/// "BAR5+000A8<06000004" as "A8:06000004".
std::string short_index(std::string write) {
    write.replace(write.find('<'), 1, ":");
    return write.substr(write.find_first_not_of('0', std::string_view("BAR5+").size()));
}

} // namespace

Lines register_lines(Lines accesses, bool named) {
    for (std::string& access : accesses) { // "0  BAR5+000A8 < 06000004"
        access.erase(0, named ? 0 : access.find(' '));
        std::erase(access, ' ');
    }
    Lines lines;
    bool last_was_read = false;
    for (std::size_t i = 0; i < accesses.size(); ++i) {
        std::string access = accesses[i];
        if (i + 1 < accesses.size() && is_pair(access, accesses[i + 1])) {
            const std::string& data = accesses[++i];
            access = short_index(access) + data.substr(data.find_first_of("<>"));
        }
        const bool read = access.find('>') != access.npos;
        if (lines.empty() || (last_was_read && !read)) {
            lines.push_back(access);
        } else {
            lines.back() += " " + access;
        }
        last_was_read = read;
    }
    return lines;
}

} // namespace session
