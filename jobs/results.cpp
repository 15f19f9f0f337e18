#include "results.h"

#include "support/table_reader.h"

#include <algorithm>
#include <cctype>
#include <charconv>
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

/// Longer than any line of a job; what goes on for longer was cut.
constexpr std::size_t kLongestLine = 1024;

constexpr std::string_view kColumns[] = {
    "machine", "serial", "job",     "adapter", "place",  "device", "step",    "line",
    "command", "image",  "address", "size",    "sha256", "flash",  "seconds", "status"};

/// The log without escape sequences and line ends, all else that is no printable ASCII replaced.
std::string plain(std::string_view log) {
    std::string text;
    for (std::size_t i = 0; i < log.size(); ++i) {
        if (log[i] == '\x1b' && i + 1 < log.size() && log[i + 1] == '[') {
            i = log.find_first_not_of("0123456789;?=", i + 2);
            if (i == std::string_view::npos) {
                break;
            }
        } else if (log[i] != '\r' && log[i] != '\n' && log[i] != '\0') {
            text.push_back(log[i] >= ' ' && log[i] <= '~' ? log[i] : '?');
        }
    }
    return text;
}

Line parse(std::string_view line, const std::string& file) {
    Line result;
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

unsigned long number(std::string_view text) {
    unsigned long value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

/// UUIDs are written with capitals, too.
bool same_name(std::string_view a, std::string_view b) {
    return std::ranges::equal(
        a, b, {}, [](unsigned char c) { return std::tolower(c); },
        [](unsigned char c) { return std::tolower(c); });
}

std::string name_of(const Line& line) {
    return std::string(line.word("machine")) + ", job " + std::string(line.word("job"));
}

} // namespace

std::string_view Line::word(std::string_view key) const {
    const auto found = words.find(key);
    return found == words.end() ? std::string_view("-") : std::string_view(found->second);
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
    if (expected.machines.empty()) {
        reader.fail("machine", "is missing; at least one [[machine]] is needed");
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
    const bool begins = line.starts_with(kJob);
    const bool found = line.starts_with(kFound);
    if (!begins && !found && !line.starts_with(kResult)) {
        return false;
    }
    Line result = parse(line, file);
    // Boards can share a UUID, so the serial number counts too. Of machines without any name nobody
    // knows which is which; then each file is one.
    std::string key;
    for (const char* word : {"machine", "serial", "job"}) {
        key += std::string(result.word(word)) + ' ';
    }
    Machine& machine = machines_[result.word("machine") == "unknown" ? key + file : key];
    if (begins) {
        for (auto& [place, adapter] : machine.now) {
            if (adapter.is_complete()) {
                machine.before[place] = std::move(adapter);
            }
        }
        machine.now.clear();
        machine.last = std::move(result);
        machine.last.words["status"] = "unfinished";
        machine.last.text = "no result; was the power lost?";
        return true;
    }
    if (result.word("adapter") == "none") {
        machine.last = std::move(result);
        return true;
    }
    if (result.words.contains("image") && result.words.contains("sha256")) {
        const std::string image(result.word("image"));
        const std::string sum(result.word("sha256"));
        const auto& first = sums_[std::string(result.word("job"))].emplace(image, sum).first;
        if (first->second != sum) {
            two_sums_.push_back("job " + std::string(result.word("job")) + ": " + image +
                                " has two checksums, " + first->second + " and " + sum);
            first->second = sum;
        }
    }
    if (machine.last.words.empty()) { // the log begins in the middle of a run
        machine.last = result;
        machine.last.words["status"] = "unfinished";
    }
    Adapter& adapter = machine.now[std::string(result.word("place"))];
    if (found) {
        adapter.found = std::move(result);
    } else {
        adapter.results[number(result.word("step"))] = std::move(result);
    }
    return true;
}

bool Results::Adapter::is_complete() const {
    return !found.words.empty() && results.size() >= number(found.word("steps"));
}

bool Results::Adapter::is_done() const {
    return is_complete() && !results.empty() &&
           std::ranges::all_of(results, [](const auto& step) { return step.second.is_done(); });
}

bool Results::Machine::is_finished() const {
    return !now.empty() && last.word("adapter") != "none" &&
           std::ranges::all_of(now, [](const auto& at) { return at.second.is_complete(); });
}

Results::Adapters Results::Machine::counting() const {
    Adapters adapters = now;
    if (!is_finished()) {
        for (const auto& [place, adapter] : before) {
            if (!adapters.contains(place) || !adapters[place].is_complete()) {
                adapters[place] = adapter;
            }
        }
    }
    return adapters;
}

std::vector<Line> Results::lines() const {
    std::vector<Line> lines;
    for (const auto& [key, machine] : machines_) {
        const Adapters adapters = machine.counting();
        for (const auto& [place, adapter] : adapters) {
            for (const auto& [step, line] : adapter.results) {
                lines.push_back(line);
            }
            if (!adapter.is_complete() || adapter.results.empty()) {
                lines.push_back(adapter.found.words.empty() ? machine.last : adapter.found);
                lines.back().words["status"] = machine.last.word("status");
                lines.back().text = machine.last.text;
            }
        }
        if (adapters.empty()) {
            lines.push_back(machine.last);
        }
    }
    return lines;
}

std::vector<std::string> Results::problems() const {
    std::vector<std::string> sentences = two_sums_;
    for (const auto& [key, machine] : machines_) {
        if (!machine.is_finished()) {
            sentences.push_back(name_of(machine.last) +
                                ": the last run is unfinished: " + machine.last.text);
        }
    }
    return sentences;
}

std::vector<std::string> Results::missing(const Expected& expected) const {
    std::vector<std::string> sentences;
    for (const ExpectedMachine& wanted : expected.machines) {
        std::size_t done = 0;
        for (const auto& [key, machine] : machines_) {
            const Line& last = machine.last;
            if ((expected.job.empty() || last.word("job") == expected.job) &&
                (same_name(last.word("machine"), wanted.name) ||
                 same_name(last.word("serial"), wanted.name))) {
                done += static_cast<std::size_t>(std::ranges::count_if(
                    machine.counting(), [](const auto& at) { return at.second.is_done(); }));
            }
        }
        if (done < wanted.adapters) {
            sentences.push_back(wanted.name + ": " + std::to_string(done) + " of " +
                                std::to_string(wanted.adapters) + " adapters are done");
        }
    }
    return sentences;
}

void print_table(const std::vector<Line>& lines, std::ostream& out) {
    std::map<std::string_view, std::size_t> widths;
    for (const std::string_view column : kColumns) {
        widths[column] = column.size();
        for (const Line& line : lines) {
            widths[column] = std::max(widths[column], line.word(column).size());
        }
    }
    const auto cell = [&](std::string_view column, std::string_view text) {
        out << std::left << std::setw(static_cast<int>(widths[column]) + 2) << text;
    };
    for (const std::string_view column : kColumns) {
        cell(column, column);
    }
    out << "says\n";
    for (const Line& line : lines) {
        for (const std::string_view column : kColumns) {
            cell(column, line.word(column));
        }
        out << line.text << '\n';
    }
}

void print_csv(const std::vector<Line>& lines, std::ostream& out) {
    const auto cell = [&](std::string_view text) {
        out << '"'
            << (!text.empty() && std::string_view("=+-@").find(text[0]) != std::string::npos ? "'"
                                                                                             : "");
        for (const char c : text) {
            out << (c == '"' ? "\"\"" : std::string(1, c));
        }
        out << '"';
    };
    for (const std::string_view column : kColumns) {
        out << column << ',';
    }
    out << "says\r\n";
    for (const Line& line : lines) {
        for (const std::string_view column : kColumns) {
            cell(line.words.contains(column) ? line.word(column) : "");
            out << ',';
        }
        cell(line.text);
        out << "\r\n";
    }
}

std::string json(const std::vector<Line>& lines, const std::vector<std::string>& problems,
                 bool complete) {
    nlohmann::ordered_json json;
    json["complete"] = complete;
    json["steps"] = nlohmann::ordered_json::array();
    for (const Line& line : lines) {
        nlohmann::ordered_json entry;
        for (const std::string_view key : kColumns) {
            if (line.words.contains(key)) {
                entry[std::string(key)] = line.word(key);
            }
        }
        entry["done"] = line.is_done();
        entry["says"] = line.text;
        entry["file"] = line.file;
        json["steps"].push_back(entry);
    }
    json["problems"] = problems;
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

} // namespace jobs
