#include "journal.h"

#include <utility>

namespace emulator {

void Journal::misuse(std::string what) {
    ++misuse_count_;
    if (!probes_.empty()) {
        probes_.on_event("misuse: " + what);
    }
    if (misuses_.size() < kKept) {
        misuses_.push_back(std::move(what));
    }
}

void Journal::misuse(std::string_view place, std::initializer_list<std::string_view> words) {
    if (probes_.empty() && misuses_.size() >= kKept) {
        ++misuse_count_;
        return;
    }
    std::string what = std::string(place) + ": ";
    for (const std::string_view word : words) {
        what += word;
    }
    misuse(std::move(what));
}

std::vector<std::string> Journal::take_misuses() {
    misuse_count_ = 0;
    return std::exchange(misuses_, {});
}

} // namespace emulator
