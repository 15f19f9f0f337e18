// Every command of the sessions again, while one thing after another goes wrong.
#include "sweep.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using lab::Bytes;
using session::Command;
using session::flash_of;
using session::Observation;
using session::Stage;

std::size_t count(std::string_view text, std::string_view word) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(word, at)) != text.npos; at += word.size()) {
        ++found;
    }
    return found;
}

/// Variants of one run of qfu.
class Variants : public session::Sweep {
  public:
    using Sweep::Sweep;

    void fail_calls(std::string_view kind, std::uint64_t first, std::uint64_t step) const {
        Sweep::fail_calls(kind, first, step,
                          [&](const Observation& seen) { return what_is_wrong(seen, kind); });
    }

    /// Takes power away in each access. The same command must then leave what it leaves without a
    /// loss.
    void cut_power() const {
        for (std::uint64_t access = 1; access <= good().accesses; ++access) {
            lose_power(access, [&] {
                const Observation again = run();
                return again.console.ends_with("successful!!\r\n") && again.misuses.empty() &&
                               lab::equal(flash_of(stage()), good_flash())
                           ? ""
                           : "not repaired: " + again.console;
            });
        }
    }

    /// Breaks a dump of `blocks` blocks at each query. It must say of each block that it read
    /// exactly what the file has, and of the whole that it was successful exactly when nothing is
    /// missing.
    void break_dump(std::size_t blocks) const {
        constexpr std::uint64_t kInDiscovery = 64 * 16;
        Sweep::fail_calls("break", kInDiscovery, 1, [&](const Observation& seen) {
            const std::size_t read = count(seen.console, "Read address ");
            const std::size_t size = lab::read_file(folder() / "dump.bin").size();
            const bool claimed = count(seen.console, "successful") != 0;
            return size == read * 0x1000 && claimed == (read == blocks) ? "" : seen.console;
        });
    }

  private:
    std::span<const std::uint8_t> good_flash() const {
        return std::span(good().flash).first(flash_before_.size());
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
            if (good().misuses == 0 && !misuse.ends_with("while the chip is busy") &&
                misuse.find("sets bits") == misuse.npos && call != "memory write" &&
                call != "memory read") {
                return misuse;
            }
        }
        // With several adapters, a lost answer may leave one out, and the command serves another.
        const Bytes flash = flash_of(stage());
        if (call == "memory read" || call == "memory write" ||
            stage().machine->adapters().size() != 1 || lab::equal(flash, good_flash())) {
            return "";
        }
        const std::string console = good().console.data();
        const bool success = seen.console.find("Write file is successful") != console.npos &&
                             seen.console.find(size_line(console)) != console.npos;
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

    Bytes flash_before_ = flash_of(stage());
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

class SessionSweep : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(SessionSweep, OverFailingCallsLeavesAnExplainedFlash) {
    const bool each = GetParam().stem() == "short-writes";
    std::size_t number = 0;
    session::play(GetParam(), [&](const Stage& stage, const Command& command, auto& clock,
                                  const auto& folder) {
        if (has_faults(stage) || command.words[0] != "qfu") {
            return;
        }
        const Variants variants(stage, command, clock, folder);
        constexpr std::uint64_t kMostAccesses = 20'000; // more are polls, and take too long
        const auto& good = Variants::good();
        if (good.accesses == 0 || good.accesses > kMostAccesses) {
            return;
        }
        ++number;
        for (std::size_t kind = 0; kind < emulator::kNamedCalls.size(); ++kind) {
            // A few calls of each command, and others of the next one.
            const std::string_view name = emulator::kNamedCalls[kind].name;
            const bool few = name == "pool" || name == "file";
            const std::uint64_t tries = few ? 6 : 3;
            const std::uint64_t step = each && few ? 1 : good.calls[kind] / tries + 1;
            variants.fail_calls(name, 1 + number * 7 % step, step);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Sessions, SessionSweep, testing::ValuesIn(session_files()),
                         [](const auto& file) {
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
