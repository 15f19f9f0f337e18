#include "report.h"

#include <algorithm>
#include <fmt/format.h>
#include <iostream>

namespace emulator {
namespace {

/// Seconds with six decimals, in a column of its own.
std::string time_column(std::uint64_t ns) {
    constexpr std::uint64_t kNsPerUs = 1'000;
    constexpr std::uint64_t kUsPerSecond = 1'000'000;
    const std::uint64_t us = ns / kNsPerUs;
    return fmt::format("{:5}.{:06}  ", us / kUsPerSecond, us % kUsPerSecond);
}

} // namespace

CycleLog::CycleLog(const std::filesystem::path& file, std::span<const std::filesystem::path> inputs,
                   Journal& journal, const Clock& clock)
    : journal_(&journal) {
    if (file.empty()) {
        return;
    }
    file_.emplace(file, inputs, support::Appears::kAsWritten);
    journal.listen_to_cycles([this, &clock, start = clock.now_ns(), shown = std::uint64_t{0},
                              text = time_column(0)](std::string_view line) mutable {
        const std::uint64_t now = clock.now_ns() - start;
        if (now != shown) {
            shown = now;
            text = time_column(now);
        }
        file_->write(text);
        file_->write(line);
        file_->write("\n");
    });
}

CycleLog::~CycleLog() {
    if (file_) {
        journal_->listen_to_cycles(nullptr);
    }
}

void CycleLog::finish() {
    if (file_) {
        journal_->listen_to_cycles(nullptr);
        file_->finish();
    }
}

void print_misuse(const char* program, const Journal& journal) {
    constexpr std::size_t kShown = 10;
    const std::size_t shown = std::min(kShown, journal.misuses().size());
    for (std::size_t i = 0; i < shown; ++i) {
        std::cerr << program << ": misuse: " << journal.misuses()[i] << '\n';
    }
    if (journal.misuse_count() > shown) {
        std::cerr << program << ": misuse: and " << journal.misuse_count() - shown << " more\n";
    }
}

void print_idle_faults(const char* program, const std::filesystem::path& machine,
                       std::vector<std::size_t> lines) {
    std::ranges::sort(lines);
    for (const std::size_t line : lines) {
        std::cerr << program << ": " << machine.string() << ":" << line
                  << ": this fault never struck\n";
    }
}

} // namespace emulator
