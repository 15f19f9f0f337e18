// Every write of a session again, while one thing after another goes wrong. What the last line
// says is compared with every chip of the machine.
#include "sweep.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <regex>

namespace {

using session::Command;
using session::Flash;
using session::Observation;
using session::Stage;

constexpr unsigned kProved = 0;
constexpr unsigned kFailed = 1;
constexpr unsigned kNothingChanged = 2;

std::string last_line(const std::string& console) {
    const std::size_t end = console.rfind("\r\n");
    const std::size_t start = end == console.npos ? end : console.find_last_of("\r\n", end - 1);
    return console.substr(start == console.npos ? 0 : start + 1);
}

/// True when a chip was erased, programmed, unprotected, or its status written.
bool changed_chips(const Observation& seen) {
    return std::ranges::any_of(emulator::kOperations, [&](const emulator::OperationTraits& traits) {
        return traits.stores && seen.operations.at(static_cast<std::size_t>(traits.operation)) != 0;
    });
}

/// One `flash write IMAGE -addr A`, and what it should leave on the first adapter.
class Write : public session::Sweep {
  public:
    Write(const Stage& stage, const Command& command, emulator::VirtualClock& clock,
          const std::filesystem::path& folder)
        : Sweep(stage, command, clock, folder), before_(session::contents_of(*stage.machine)),
          after_(before_) {
        const auto csid = std::ranges::find(command.words, "-csid");
        place_ = csid == command.words.end() ? "0.cs1" : "0.cs" + *(csid + 1);
        const auto address = std::stol(command.words.at(4), nullptr, 0);
        std::ranges::copy(lab::read_file(folder / command.words.at(2)),
                          after_[place_].begin() + address);
        int number = 0; // of the first name that is free
        do {
            backup_ = folder / (command.words[2] + ".old00" + std::to_string(number++));
        } while (std::filesystem::exists(backup_));
    }

    void fail_calls(std::string_view kind, std::uint64_t first, std::uint64_t step) const {
        Sweep::fail_calls(kind, first, step, [&](const Observation& seen) {
            // A lost answer can send the window of a NOR chip to the wrong place.
            return what_is_wrong(seen, kind.starts_with("memory "));
        });
    }

    /// Takes power away in every access that changes the flash, and in some that only read it.
    void cut_power() const {
        constexpr std::uint64_t kStep = 1999; // prime
        EXPECT_GT(good().changes, 2);
        for (std::size_t i = 0; i < good().changes; ++i) {
            lose_power(good().change[i], [&] { return after_power_loss(); });
        }
        for (std::uint64_t access = 1; access < good().accesses; access += kStep) {
            lose_power(access, [&] { return after_power_loss(); });
        }
    }

  private:
    std::string text() const {
        const lab::Bytes bytes = lab::read_file(backup_.string() + ".txt");
        return {bytes.begin(), bytes.end()};
    }

    /// The saved bytes must be those that the chip held. @returns false when they are not
    bool backup_is_true() const {
        std::smatch found;
        const std::string words = text();
        if (!std::regex_search(words, found, std::regex("address 0x([0-9a-f]+)"))) {
            return false;
        }
        const lab::Bytes saved = lab::read_file(backup_);
        return !saved.empty() &&
               std::equal(saved.begin(), saved.end(),
                          before_.at(place_).begin() + std::stol(found[1], nullptr, 16));
    }

    std::string what_is_wrong(const Observation& seen, bool lost_accesses) const;
    std::string what_the_line_gets_wrong(const std::string& line, const Flash& now) const;
    std::string after_power_loss() const;

    std::string place_;
    std::filesystem::path backup_;
    Flash before_;
    Flash after_;
};

/// Each part that the last line names must hold what it says.
std::string Write::what_the_line_gets_wrong(const std::string& line, const Flash& now) const {
    static const std::regex kPart("0x([0-9a-f]+) to 0x([0-9a-f]+) holds (the image|what was there "
                                  "before|neither)");
    const lab::Bytes& flash = now.at(place_);
    bool named = line.find("reads as before") != line.npos;
    if (named && flash != before_.at(place_)) {
        return "it does not read as before";
    }
    for (std::sregex_iterator part(line.begin(), line.end(), kPart), end; part != end; ++part) {
        named = true;
        const auto first = std::stoul((*part)[1], nullptr, 16);
        const auto last = std::stoul((*part)[2], nullptr, 16);
        const auto same = [&](const Flash& other) {
            return std::equal(flash.begin() + static_cast<std::ptrdiff_t>(first),
                              flash.begin() + static_cast<std::ptrdiff_t>(last + 1),
                              other.at(place_).begin() + static_cast<std::ptrdiff_t>(first));
        };
        const std::string what = (*part)[3];
        if ((what == "the image" && !same(after_)) ||
            (what == "what was there before" && !same(before_)) ||
            (what == "neither" && (same(after_) || same(before_)))) {
            return "a part does not hold what the last line says";
        }
    }
    return named || line.find("cannot be read") != line.npos ? "" : "it says nothing of the flash";
}

std::string Write::what_is_wrong(const Observation& seen, bool lost_accesses) const {
    const Flash now = session::contents_of(*stage().machine);
    const std::string line = last_line(seen.console);
    if (!seen.misuses.empty() && !lost_accesses) {
        return seen.misuses.front();
    }
    switch (seen.status) {
    case kProved:
        return now == after_ && line.starts_with("done: ") ? "" : "status 0: " + line;
    case kNothingChanged:
        return now == before_ && !changed_chips(seen) && line.starts_with("refused: ") &&
                       (backup_is_true() || !std::filesystem::exists(backup_) ||
                        line.find("incomplete") != line.npos)
                   ? ""
                   : "status 2: " + line;
    case kFailed: {
        if (!line.starts_with("FAILED: ") || !backup_is_true()) {
            return "status 1, or no backup: " + line;
        }
        const std::string wrong = what_the_line_gets_wrong(line, now);
        return wrong.empty() ? "" : wrong + ": " + line;
    }
    default:
        return "status " + std::to_string(seen.status);
    }
}

/// Without a complete backup nothing may have changed. With one, `restore` brings every byte back,
/// and the same write then succeeds.
std::string Write::after_power_loss() const {
    const std::string words = text();
    const bool complete = words.find("unstable") != words.npos && words.ends_with('\n');
    if (session::contents_of(*stage().machine) != before_) {
        std::string line = "flash restore " + backup_.filename().string();
        for (std::size_t i = 5; i < command().words.size(); ++i) {
            line += ' ' + command().words[i];
        }
        const Observation restored = run(line);
        if (!complete || restored.status != kProved ||
            session::contents_of(*stage().machine) != before_) {
            return "not restored: " + last_line(restored.console);
        }
    }
    const Observation again = run();
    return again.status == kProved && session::contents_of(*stage().machine) == after_
               ? ""
               : "not written: " + last_line(again.console);
}

void for_each_write(const std::function<void(const Write&)>& sweep) {
    session::play(QFU_SOURCE_DIR "/tests/sessions/flash-writes.txt",
                  [&](const Stage& stage, const Command& command, auto& clock, const auto& folder) {
                      sweep(Write(stage, command, clock, folder));
                  });
}

TEST(FlashSweep, OverFailingCallsSaysWhatTheFlashHolds) {
    for_each_write([](const Write& write) {
        write.fail_calls("pool", 1, 1);
        write.fail_calls("file", 1, 1);
        write.fail_calls("short read", 1, 1);
        write.fail_calls("break", 1, 211);
        write.fail_calls("configuration read", 1, 13);
        write.fail_calls("memory read", 1, 499);
        write.fail_calls("memory write", 1, 499);
    });
}

TEST(FlashSweep, OverPowerLossesIsRepairedByRestore) {
    for_each_write([](const Write& write) { write.cut_power(); });
}

TEST(FlashSweep, OverFailingCallsOfAJobNeverClaimsMoreThanTheFlashHolds) {
    const auto sweep_job = [](const Stage& stage, const Command& command, auto& clock,
                              const auto& folder) {
        const session::Sweep sweep(stage, command, clock, folder);
        const lab::Bytes before = session::flash_of(stage);
        const auto good = std::span(session::Sweep::good().flash).first(before.size());
        const auto judge = [&](const Observation& seen) {
            const lab::Bytes now = session::flash_of(stage);
            bool explained = seen.misuses.empty();
            for (std::size_t i = 0; i < now.size(); ++i) {
                explained = explained && (now[i] == before[i] || now[i] == good[i]);
            }
            const bool holds = seen.status == kProved ? lab::equal(now, good)
                               : seen.status == kNothingChanged
                                   ? now == before && !changed_chips(seen)
                                   : seen.status == kFailed;
            return explained && holds
                       ? ""
                       : std::to_string(seen.status) + ": " + last_line(seen.console);
        };
        sweep.fail_calls("pool", 1, 1, judge);
        sweep.fail_calls("file", 1, 1, judge);
        sweep.fail_calls("break", 1, 499, judge);
        sweep.fail_calls("memory read", 1, 1999, judge);
    };
    session::play(QFU_SOURCE_DIR "/tests/sessions/flash-job.txt", sweep_job);
}

} // namespace
