// The console: a transcript of what was printed, and keys that somebody presses.
#pragma once

#include "hardware/journal.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace emulator {

/// A key stroke: scan code 0 for keys with a character.
struct KeyStroke {
    std::uint16_t scan_code;
    std::uint16_t character;
};

class Terminal {
  public:
    explicit Terminal(Journal& journal) : journal_(&journal) {}

    /// Text as the program handed it over, 8 bits a character.
    const std::string& transcript() const { return transcript_; }

    /// Called with every text as it is printed.
    void on_output(std::function<void(std::string_view)> listener) {
        listener_ = std::move(listener);
    }

    /// Where keys come from once the pressed ones are used up. It is told whether the program does
    /// nothing but wait for one, so that it may take its time.
    using KeySource = std::function<std::optional<KeyStroke>(bool program_waits)>;
    void on_key_needed(KeySource source) {
        source_ = std::move(source);
        keys_have_ended_ = false;
    }

    /// Said by whoever presses keys when no more will come.
    void no_more_keys() { keys_have_ended_ = true; }

    void press(std::string_view keys);
    void press(KeyStroke key) { keys_.push_back(key); }

    /// Presses keys before the program asks for any; `discard_early_keys` takes them away.
    void press_early(std::string_view keys);
    void discard_early_keys();
    std::size_t keys_left() const { return keys_.size(); }

    void print(const std::uint16_t* text);
    bool key_pending();
    std::optional<KeyStroke> take_key();

    /// Texts handed over so far.
    std::uint64_t print_count() const { return prints_; }

    /// Noted when the program does something else than ask for a key.
    void note_activity() { asked_in_vain_ = 0; }

    /// Noted when the program looks at the clock: its wait ends without a key, too.
    void note_clock_read() { keys_missed_ = 0; }

    /// True when the program waited for a key that nobody was there to press. It got Enter, lest it
    /// wait for ever.
    bool starved() const { return starved_; }

  private:
    Journal* journal_;
    std::string transcript_;
    std::function<void(std::string_view)> listener_;
    KeySource source_;
    std::deque<KeyStroke> keys_;
    std::size_t early_keys_ = 0; ///< the first of them
    std::uint64_t prints_ = 0;
    int asked_in_vain_ = 0; ///< since the program did something else
    int keys_missed_ = 0;   ///< since a key came or the clock was looked at
    bool keys_have_ended_ = true;
    bool starved_ = false;
};

} // namespace emulator
