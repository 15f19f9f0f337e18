#include "terminal.h"

namespace emulator {

void Terminal::press(std::string_view keys) {
    for (const char key : keys) {
        press(KeyStroke{0, static_cast<unsigned char>(key)});
    }
}

void Terminal::press_early(std::string_view keys) {
    early_keys_ = keys.size();
    press(keys);
}

void Terminal::discard_early_keys() {
    keys_.erase(keys_.begin(), keys_.begin() + static_cast<std::ptrdiff_t>(early_keys_));
    early_keys_ = 0;
}

void Terminal::print(const std::uint16_t* text) {
    note_activity();
    ++prints_;
    if (*text == 0) {
        // A redirected console writes what happens to be in its buffer.
        journal_->misuse("console: an empty text printed");
        return;
    }
    const std::size_t start = transcript_.size();
    for (; *text != 0; ++text) {
        if (*text > 0xFF) {
            journal_->misuse("console: a character above FF printed");
        }
        transcript_.push_back(static_cast<char>(*text & 0xFF));
    }
    if (listener_) {
        listener_(std::string_view(transcript_).substr(start));
    }
}

bool Terminal::key_pending() {
    if (keys_.empty() && source_) {
        if (const auto key = source_(asked_in_vain_ > 1)) {
            keys_.push_back(*key);
        }
    }
    return !keys_.empty();
}

std::optional<KeyStroke> Terminal::take_key() {
    constexpr int kPatience = 1000;
    if (!key_pending()) {
        ++asked_in_vain_;
        ++keys_missed_;
        const bool in_vain = keys_have_ended_ && keys_missed_ >= kPatience;
        if (asked_in_vain_ < kPatience && !in_vain) {
            return std::nullopt;
        }
        starved_ = true;
        press("\r");
    }
    note_activity();
    keys_missed_ = 0;
    const KeyStroke key = keys_.front();
    keys_.pop_front();
    early_keys_ -= early_keys_ > 0 ? 1 : 0;
    return key;
}

} // namespace emulator
