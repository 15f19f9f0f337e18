// How a run ends: its last line and its exit status.
#pragma once

#include "text.h"

namespace flash {

/// The end of a run, as the last line begins with it. A step returns NONE to let the run go on.
enum class Verdict : std::uint8_t {
    NONE,
    DONE,    ///< the flash holds what was asked, or what was read is proved
    HELD,    ///< the flash held what was asked before
    FAILED,  ///< it does not, or differs
    REFUSED, ///< nothing was changed and nothing was proved
};

/// What a step returns. Tests true when it ends the run.
struct Outcome {
    Verdict verdict = Verdict::NONE;

    explicit operator bool() const { return verdict != Verdict::NONE; }
};

/// Why the run ends: one sentence, without the full stop, from whoever made the last outcome.
Text& reason();

/// Names the memory of `reason`, before the first outcome is made.
void keep_reason_in(Text& text);

/// Outcomes with their reason, as Text puts it together.
Outcome done(const char* format, std::initializer_list<Part> parts = {});
Outcome held(const char* format, std::initializer_list<Part> parts = {});
Outcome failed(const char* format, std::initializer_list<Part> parts = {});
Outcome refused(const char* format, std::initializer_list<Part> parts = {});

} // namespace flash
