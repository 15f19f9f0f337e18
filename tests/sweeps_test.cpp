// Every command of the sessions again, while one thing after another goes wrong.
#include "player/player.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <iostream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using emulator::kNamedCalls;
using lab::Bytes;
using session::Command;
using session::Observation;
using session::Stage;

/// How a command ends when nothing goes wrong. It lives in memory that forks share.
struct GoodRun {
    std::array<std::uint64_t, kNamedCalls.size()> calls; ///< by the call's place in the list
    std::uint64_t accesses;
    std::uint64_t misuses;
    std::array<char, 4096> console;
    std::array<std::uint8_t, 1 << 25> flash; ///< of all chips in a row
};

GoodRun& good_run() {
    static void* memory =
        mmap(nullptr, sizeof(GoodRun), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *static_cast<GoodRun*>(memory);
}

/// The contents of all chips in a row.
Bytes flash_of(const Stage& stage) {
    Bytes flash;
    for (const auto& [place, chip] : session::chips_of(*stage.machine)) {
        flash.insert(flash.end(), chip.begin(), chip.end());
    }
    return flash;
}

/// A command that is about to run. Each variant runs in a fork, so that the session goes on as if
/// nothing had happened.
class Variants {
  public:
    Variants(const Stage& stage, const Command& command, emulator::VirtualClock& clock,
             const std::filesystem::path& folder)
        : stage_(stage), command_(command), clock_(clock), folder_(folder) {
        GoodRun& good = good_run(); // made here, so that parent and fork share it
        in_fork("as it is", [&] {
            const Observation run = session::run(stage_, command_, clock_, folder_);
            std::ranges::copy(run.calls, good.calls.begin());
            good.accesses = stage_.machine->accesses() - accesses_before_;
            good.misuses = run.misuses.size();
            good.console.fill('\0');
            run.console.copy(good.console.data(), good.console.size() - 1);
            std::ranges::copy(flash_of(stage_), good.flash.begin());
            return std::string();
        });
    }

    /// Lets the nth call of a kind fail, for every `step`th of the good run's calls.
    void fail_calls(std::size_t kind, std::uint64_t first, std::uint64_t step) const {
        for (std::uint64_t nth = first; nth <= good_run().calls[kind]; nth += step) {
            const std::string what =
                std::string(kNamedCalls[kind].name) + " " + std::to_string(nth);
            in_fork(what, [&] {
                const Observation seen = session::run(
                    stage_, command_, clock_, folder_, {}, [&](emulator::Firmware& firmware) {
                        (firmware.faults().*kNamedCalls[kind].fault).fail(nth);
                    });
                return what_is_wrong(seen, kNamedCalls[kind].name);
            });
        }
    }

    /// Takes power away in each access of the first adapter. When the machine is up again, the same
    /// command must leave what it leaves without a loss.
    void cut_power() const {
        emulator::Adapter& adapter = stage_.machine->adapter(0);
        for (std::uint64_t access = 1; access <= good_run().accesses; ++access) {
            in_fork("power lost in access " + std::to_string(access), [&] {
                adapter.add_power_fault({.nth = accesses_before_ + access});
                stage_.machine->journal().listen_to_cycles([&](std::string_view cycle) {
                    if (cycle.ends_with("power is lost")) {
                        end_after_second_run(adapter); // the first never goes on
                    }
                });
                session::run(stage_, command_, clock_, folder_);
                return std::string("power was never lost");
            });
        }
    }

    /// Breaks a dump of `blocks` blocks at each query. It must say of each block that it read
    /// exactly what the file has, and of the whole that it was successful exactly when nothing is
    /// missing.
    void break_dump(std::size_t blocks) const {
        const auto call = std::ranges::find(kNamedCalls, "break", &emulator::NamedCall::name);
        const auto kind = static_cast<std::size_t>(call - kNamedCalls.begin());
        constexpr std::uint64_t kInDiscovery = 64 * 16;
        for (std::uint64_t nth = kInDiscovery; nth <= good_run().calls[kind]; ++nth) {
            in_fork("break " + std::to_string(nth), [&] {
                const Observation seen = session::run(
                    stage_, command_, clock_, folder_, {},
                    [&](emulator::Firmware& firmware) { firmware.faults().break_query.fail(nth); });
                const std::size_t read = count(seen.console, "Read address ");
                const std::size_t size = lab::read_file(folder_ / "dump.bin").size();
                const bool claimed = count(seen.console, "successful") != 0;
                return size == read * 0x1000 && claimed == (read == blocks) ? "" : seen.console;
            });
        }
    }

  private:
    static std::size_t count(std::string_view text, std::string_view word) {
        std::size_t found = 0;
        for (std::size_t at = 0; (at = text.find(word, at)) != text.npos; at += word.size()) {
            ++found;
        }
        return found;
    }

    /// Runs `variant` in a fork. It returns what is wrong, or "".
    template <class Variant>
    void in_fork(const std::string& what, Variant variant) const {
        std::cout << std::flush;
        const pid_t child = fork();
        if (child == 0) {
            const std::string wrong = variant();
            if (!wrong.empty()) {
                std::cerr << wrong << '\n';
            }
            _exit(wrong.empty() ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << command_.line << ": " << what;
    }

    [[noreturn]] void end_after_second_run(emulator::Adapter& adapter) const {
        adapter.power_up();
        const Observation again = session::run(stage_, command_, clock_, folder_);
        const bool good = again.console.ends_with("successful!!\r\n") && again.misuses.empty() &&
                          lab::equal(flash_of(stage_), good_flash());
        std::cerr << (good ? "" : "not repaired: " + again.console);
        _exit(good ? 0 : 1);
    }

    std::span<const std::uint8_t> good_flash() const {
        return std::span(good_run().flash).first(flash_before_.size());
    }

    /// True when each byte is what it was, erased, or what the good run leaves.
    bool is_explained(const Bytes& flash) const {
        for (std::size_t i = 0; i < flash.size(); ++i) {
            if (flash[i] != flash_before_[i] && flash[i] != good_flash()[i] && flash[i] != 0xFF) {
                return false;
            }
        }
        return true;
    }

    std::string what_is_wrong(const Observation& seen, std::string_view call) const {
        if (seen.status != 0 && seen.status != 3) {
            return "status " + std::to_string(seen.status);
        }
        for (const std::string& misuse : seen.misuses) {
            // A lost answer or a break may let a command meet a chip that is busy or not erased.
            if (good_run().misuses == 0 && !misuse.ends_with("while the chip is busy") &&
                misuse.find("sets bits") == misuse.npos && call != "memory write" &&
                call != "memory read") {
                return misuse;
            }
        }
        // With several adapters, a lost answer may leave one out, and the command serves another.
        const Bytes flash = flash_of(stage_);
        if (call == "memory read" || call == "memory write" ||
            stage_.machine->adapters().size() != 1 || lab::equal(flash, good_flash())) {
            return "";
        }
        const std::string good = good_run().console.data();
        const bool success = seen.console.find("Write file is successful") != good.npos &&
                             seen.console.find(size_line(good)) != good.npos;
        return success ? "success, but the flash differs"
               : lab::equal(flash, flash_before_) || is_explained(flash)
                   ? ""
                   : "the flash holds neither old nor new bytes";
    }

    /// An image whose size cannot be asked for counts as empty, and the user is told so.
    static std::string size_line(const std::string& console) {
        const std::size_t at = console.find("its size is ");
        return at == console.npos ? "" : console.substr(at, console.find('\r', at) - at);
    }

    const Stage& stage_;
    const Command& command_;
    emulator::VirtualClock& clock_;
    const std::filesystem::path& folder_;
    std::uint64_t accesses_before_ = stage_.machine->accesses();
    Bytes flash_before_ = flash_of(stage_);
};

bool has_faults(const Stage& stage) {
    return !stage.description.firmware_faults.empty() ||
           std::ranges::any_of(stage.description.adapters, [](const auto& adapter) {
               return !adapter.faults.empty() || (adapter.spi && !adapter.spi->faults.empty()) ||
                      (adapter.nor && !adapter.nor->faults.empty());
           });
}

std::vector<std::filesystem::path> session_files() {
    std::vector<std::filesystem::path> files;
    std::ranges::copy(std::filesystem::directory_iterator(QFU_SOURCE_DIR "/tests/sessions"),
                      std::back_inserter(files));
    std::erase_if(files, [](const auto& file) { return file.extension() != ".txt"; });
    return files;
}

class Sweep : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(Sweep, OverFailingCallsLeavesAnExplainedFlash) {
    const bool each = GetParam().stem() == "short-writes";
    std::size_t number = 0;
    session::play(GetParam(), [&](const Stage& stage, const Command& command, auto& clock,
                                  const auto& folder) {
        if (has_faults(stage)) {
            return;
        }
        const Variants variants(stage, command, clock, folder);
        constexpr std::uint64_t kMostAccesses = 20'000; // more are polls, and take too long
        if (good_run().accesses == 0 || good_run().accesses > kMostAccesses) {
            return;
        }
        ++number;
        for (std::size_t kind = 0; kind < kNamedCalls.size(); ++kind) {
            // A few calls of each command, and others of the next one.
            const std::string_view name = kNamedCalls[kind].name;
            const bool few = name == "pool" || name == "file";
            const std::uint64_t tries = few ? 6 : 3;
            const std::uint64_t step = each && few ? 1 : good_run().calls[kind] / tries + 1;
            variants.fail_calls(kind, 1 + number * 7 % step, step);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Sessions, Sweep, testing::ValuesIn(session_files()), [](const auto& file) {
    std::string name = file.param.stem().string();
    std::ranges::replace(name, '-', '_');
    return name;
});

TEST(PowerCut, InAnyAccessIsRepairedByTheSameCommand) {
    session::play(QFU_SOURCE_DIR "/tests/sessions/short-writes.txt",
                  [](const Stage& stage, const Command& command, auto& clock, const auto& folder) {
                      Variants(stage, command, clock, folder).cut_power();
                  });
}

TEST(Break, AtAnyQueryOfADumpLeavesWhatTheConsoleSays) {
    session::play(QFU_SOURCE_DIR "/tests/sessions/short-dump.txt",
                  [](const Stage& stage, const Command& command, auto& clock, const auto& folder) {
                      Variants(stage, command, clock, folder).break_dump(2);
                  });
}

} // namespace
