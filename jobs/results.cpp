#include "results.h"

#include "support/table_reader.h"

#include <algorithm>
#include <cctype>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

namespace jobs {
namespace {

constexpr std::string_view kJob = "QFU-JOB ";
constexpr std::string_view kFound = "QFU-FOUND ";
constexpr std::string_view kResult = "QFU-RESULT ";
constexpr std::string_view kEnd = " ;";
constexpr std::string_view kText = " -- ";

/// Longer than any line of the scripts; what goes on for longer was cut.
constexpr std::size_t kLongestLine = 1024;

/// The log without escape sequences and line ends.
std::string plain(std::string_view log) {
    std::string text;
    for (std::size_t i = 0; i < log.size(); ++i) {
        if (log[i] == '\x1b' && i + 1 < log.size() && log[i + 1] == '[') {
            i = log.find_first_not_of("0123456789;?=", i + 2);
            if (i == std::string_view::npos) {
                break;
            }
        } else if (log[i] != '\r' && log[i] != '\n' && log[i] != '\0') {
            text.push_back(log[i]);
        }
    }
    return text;
}

AdapterResult parse(std::string_view line, const std::string& file) {
    AdapterResult result;
    result.file = file;
    const std::size_t text = line.find(kText);
    if (text != std::string_view::npos) {
        result.text = line.substr(text + kText.size());
        line = line.substr(0, text);
    }
    while (!line.empty()) {
        const std::string_view word = line.substr(0, line.find(' '));
        const std::size_t equals = word.find('=');
        if (equals != std::string_view::npos) {
            result.words.emplace(word.substr(0, equals), word.substr(equals + 1));
        }
        line.remove_prefix(std::min(word.size() + 1, line.size()));
    }
    return result;
}

/// Boards that left the factory without a UUID of their own can share one, so the serial number
/// counts too. Of machines without any name nobody knows which is which; then each file is one.
bool same_machine(const AdapterResult& a, const AdapterResult& b) {
    return a.word("machine") == b.word("machine") && a.word("serial") == b.word("serial") &&
           (a.word("machine") != "unknown" || a.file == b.file);
}

/// UUIDs are written with capitals, too.
bool same_name(std::string_view a, std::string_view b) {
    return std::ranges::equal(
        a, b, {}, [](unsigned char c) { return std::tolower(c); },
        [](unsigned char c) { return std::tolower(c); });
}

} // namespace

std::string_view AdapterResult::word(std::string_view key) const {
    const auto found = words.find(key);
    return found == words.end() ? std::string_view("-") : std::string_view(found->second);
}

bool AdapterResult::is_done() const {
    return word("status") == "done" || word("status") == "held";
}

Expected load_expected(const std::filesystem::path& file) {
    const toml::table root = support::parse_toml(file);
    support::TableReader reader(root, file);
    Expected expected;
    expected.job = reader.text("job", "");
    for (const toml::table* table : reader.tables("machine")) {
        support::TableReader machine(*table, file);
        const std::string name = machine.text("name");
        expected.machines.push_back(
            {name, static_cast<std::size_t>(machine.number("adapters", 1, 6, 1))});
        machine.finish();
    }
    reader.finish();
    return expected;
}

bool Results::add(std::string_view log, const std::string& file) {
    const std::string text = plain(log);
    bool any = false;
    std::size_t at = 0;
    while ((at = text.find("QFU-", at)) != std::string::npos) {
        const std::size_t next = text.find("QFU-", at + 1);
        const std::string_view rest =
            std::string_view(text).substr(at, std::min(next - at, kLongestLine));
        const std::size_t end = rest.find(kEnd);
        if (end != std::string_view::npos) {
            any = add_line(rest.substr(0, end), file) || any;
        }
        ++at;
    }
    return any;
}

bool Results::add_line(std::string_view line, const std::string& file) {
    const bool begun = line.starts_with(kJob);
    if (!begun && !line.starts_with(kFound) && !line.starts_with(kResult)) {
        return false;
    }
    AdapterResult result = parse(line, file);
    if (!line.starts_with(kResult)) {
        result.words.emplace("status", "unfinished");
        result.text = "no result; was the power lost?";
    }
    if (begun) {
        result.words.emplace("adapter", "none");
    }
    if (result.word("adapter") == "none") {
        judge_machine(result);
        return true;
    }
    // What an earlier start said about the machine as a whole is over.
    std::erase_if(adapters_, [&](const AdapterResult& other) {
        return same_machine(other, result) && other.word("adapter") == "none";
    });
    const auto same = std::ranges::find_if(adapters_, [&](const AdapterResult& other) {
        return same_machine(other, result) && other.word("place") == result.word("place");
    });
    if (same == adapters_.end()) {
        adapters_.push_back(std::move(result));
    } else {
        *same = std::move(result);
    }
    return true;
}

/// A job that was refused says so once for its machine, and so does one that only began.
void Results::judge_machine(const AdapterResult& verdict) {
    bool stands = false;
    for (AdapterResult& adapter : adapters_) {
        if (same_machine(adapter, verdict) &&
            (adapter.word("status") == "unfinished" || adapter.word("adapter") == "none")) {
            adapter.words["status"] = verdict.word("status");
            adapter.text = verdict.text;
            stands = true;
        }
    }
    if (!stands) {
        adapters_.push_back(verdict);
    }
}

std::vector<std::string> Results::missing(const Expected& expected) const {
    std::vector<std::string> sentences;
    for (const ExpectedMachine& machine : expected.machines) {
        const auto done = std::ranges::count_if(adapters_, [&](const AdapterResult& adapter) {
            return adapter.is_done() &&
                   (expected.job.empty() || adapter.word("job") == expected.job) &&
                   (same_name(adapter.word("machine"), machine.name) ||
                    same_name(adapter.word("serial"), machine.name));
        });
        if (static_cast<std::size_t>(done) < machine.adapters) {
            sentences.push_back(machine.name + ": " + std::to_string(done) + " of " +
                                std::to_string(machine.adapters) + " adapters are done");
        }
    }
    return sentences;
}

void print_table(const Results& results, std::ostream& out) {
    constexpr std::string_view kColumns[] = {"machine", "serial", "adapter", "place",
                                             "device",  "image",  "status"};
    std::vector<std::vector<std::string>> rows = {
        {std::begin(kColumns), std::end(kColumns)}
    };
    for (const AdapterResult& adapter : results.adapters()) {
        rows.emplace_back();
        for (const std::string_view column : kColumns) {
            rows.back().emplace_back(adapter.word(column));
        }
    }
    for (std::size_t r = 0; r < rows.size(); ++r) {
        for (std::size_t c = 0; c < rows[r].size(); ++c) {
            const auto widest = std::ranges::max_element(
                rows, {}, [&](const std::vector<std::string>& row) { return row[c].size(); });
            out << std::left << std::setw(static_cast<int>((*widest)[c].size()) + 2) << rows[r][c];
        }
        out << (r == 0 ? "says" : results.adapters()[r - 1].text) << '\n';
    }
}

std::string json(const Results& results, const std::vector<std::string>& missing, bool complete) {
    nlohmann::ordered_json json;
    json["complete"] = complete;
    json["adapters"] = nlohmann::ordered_json::array();
    for (const AdapterResult& adapter : results.adapters()) {
        nlohmann::ordered_json entry;
        for (const char* key : {"machine", "serial", "job", "adapter", "place", "device", "image",
                                "address", "size", "sha256", "status", "saved"}) {
            if (adapter.words.contains(key)) {
                entry[key] = adapter.words.at(key);
            }
        }
        entry["done"] = adapter.is_done();
        entry["says"] = adapter.text;
        entry["file"] = adapter.file;
        json["adapters"].push_back(entry);
    }
    json["missing"] = missing;
    return json.dump(2) + '\n';
}

} // namespace jobs
