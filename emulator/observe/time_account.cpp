#include "time_account.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace emulator {
namespace {

double in_seconds(std::uint64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e9;
}

/// When the last busy chip is ready.
std::uint64_t busy_until_ns(const Machine& machine) {
    std::uint64_t until = 0;
    for (const auto& adapter : machine.adapters()) {
        if (adapter->spi().chip() != nullptr) {
            until = std::max(until, adapter->spi().chip()->busy_until_ns());
        }
        if (adapter->nor() != nullptr && adapter->nor()->chip() != nullptr) {
            until = std::max(until, adapter->nor()->chip()->busy_until_ns());
        }
    }
    return until;
}

} // namespace

TimeAccount::TimeAccount(const Machine& machine, VirtualClock& clock)
    : machine_(&machine), clock_(&clock) {
    clock.listen([this](std::uint64_t ns, TimeUse use) { pass(ns, use); });
}

TimeAccount::~TimeAccount() {
    clock_->listen(nullptr);
}

void TimeAccount::pass(std::uint64_t nanoseconds, TimeUse use) {
    const std::uint64_t now = clock_->now_ns();
    const std::uint64_t until = std::max(busy_until_ns(*machine_), now);
    const std::uint64_t busy = std::min(nanoseconds, until - now);
    busy_ns_ += busy;
    (use == TimeUse::kPause ? pause_ns_ : access_ns_) += nanoseconds - busy;
    reads_ += use == TimeUse::kRead ? 1 : 0;
    writes_ += use == TimeUse::kWrite ? 1 : 0;
}

std::string TimeAccount::text() const {
    return fmt::format(
        "on hardware about {:.6f} s: chip busy {:.6f} s, pauses {:.6f} s, register accesses "
        "{:.6f} s ({} reads, {} writes)",
        in_seconds(total_ns()), in_seconds(busy_ns_), in_seconds(pause_ns_), in_seconds(access_ns_),
        reads_, writes_);
}

std::string TimeAccount::json() const {
    const nlohmann::ordered_json object = {
        {"seconds",           in_seconds(total_ns())},
        {"chip_busy_seconds", in_seconds(busy_ns_)  },
        {"pause_seconds",     in_seconds(pause_ns_) },
        {"access_seconds",    in_seconds(access_ns_)},
        {"reads",             reads_                },
        {"writes",            writes_               },
    };
    return object.dump(2);
}

} // namespace emulator
