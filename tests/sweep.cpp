#include "sweep.h"

#include "player/machine_lines.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iostream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace session {

lab::Bytes flash_of(const Stage& stage) {
    lab::Bytes flash;
    for (const auto& [place, chip] : chips_of(*stage.machine)) {
        flash.insert(flash.end(), chip.begin(), chip.end());
    }
    return flash;
}

Sweep::GoodRun& Sweep::good() {
    static void* memory =
        mmap(nullptr, sizeof(GoodRun), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *static_cast<GoodRun*>(memory);
}

Sweep::Sweep(const Stage& stage, const Command& command, emulator::VirtualClock& clock,
             const std::filesystem::path& folder)
    : stage_(stage), command_(command), clock_(clock), folder_(folder),
      accesses_before_(stage.machine->accesses()), files_(lab::read_files(folder)) {
    GoodRun& good_run = good(); // made here, so that parent and fork share it
    in_fork("as it is", [&] {
        good_run.changes = 0;
        stage_.machine->journal().listen_to_cycles([&](std::string_view cycle) {
            if ((cycle.find(" erase") != cycle.npos || cycle.find(" program") != cycle.npos) &&
                good_run.changes < good_run.change.size()) {
                good_run.change[good_run.changes++] = stage_.machine->accesses() - accesses_before_;
            }
        });
        const Observation seen = run();
        good_run.operations = seen.operations;
        good_run.calls = seen.calls;
        good_run.accesses = stage_.machine->accesses() - accesses_before_;
        good_run.misuses = seen.misuses.size();
        good_run.console.fill('\0');
        seen.console.copy(good_run.console.data(), good_run.console.size() - 1);
        std::ranges::copy(flash_of(stage_), good_run.flash.begin());
        return std::string();
    });
}

Observation Sweep::run(const std::string& line) const {
    return session::run(stage_, {line, split(line), "", ""}, clock_, folder_);
}

void Sweep::fail_calls(std::string_view kind, std::uint64_t first, std::uint64_t step,
                       const Judge& judge) const {
    const auto call = std::ranges::find(emulator::kNamedCalls, kind, &emulator::NamedCall::name);
    const auto place = static_cast<std::size_t>(call - emulator::kNamedCalls.begin());
    for (std::uint64_t nth = first; nth <= good().calls.at(place); nth += step) {
        in_fork(std::string(kind) + " " + std::to_string(nth), [&] {
            return judge(run(
                [&](emulator::Firmware& firmware) { (firmware.faults().*call->fault).fail(nth); }));
        });
    }
}

void Sweep::lose_power(std::uint64_t nth, const std::function<std::string()>& repair) const {
    in_fork("power lost in access " + std::to_string(nth), [&] {
        emulator::Adapter& adapter = stage_.machine->adapter(0);
        adapter.add_power_fault({.nth = accesses_before_ + nth});
        stage_.machine->journal().listen_to_cycles([&](std::string_view cycle) {
            if (cycle.ends_with("power is lost")) {
                // The first run never goes on. What repairs may take this listener away.
                const auto repair_now = repair;
                adapter.power_up();
                static_cast<void>(stage_.machine->journal().take_misuses());
                const std::string wrong = repair_now();
                std::cerr << (wrong.empty() ? "" : wrong + '\n');
                _exit(wrong.empty() ? 0 : 1);
            }
        });
        run();
        return std::string("power was never lost");
    });
}

/// Runs `variant` in a fork, and puts the folder back. It returns what is wrong, or "".
void Sweep::in_fork(const std::string& what, const std::function<std::string()>& variant) const {
    std::cout << std::flush;
    const pid_t child = fork();
    if (child == 0) {
        const std::string wrong = variant();
        std::cerr << (wrong.empty() ? "" : what + ": " + wrong + '\n');
        _exit(wrong.empty() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << command_.line << ": " << what;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
        if (entry.is_regular_file() && !files_.contains(entry.path().filename().string())) {
            std::filesystem::remove(entry.path());
        }
    }
}

} // namespace session
