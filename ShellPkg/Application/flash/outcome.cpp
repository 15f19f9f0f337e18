#include "outcome.h"

namespace flash {
namespace {

constinit Text* last_reason = nullptr;

Outcome because(Verdict verdict, std::initializer_list<Part> parts) {
    last_reason->clear();
    last_reason->add(parts);
    return {verdict};
}

} // namespace

Text& reason() {
    return *last_reason;
}

void keep_reason_in(Text& text) {
    last_reason = &text;
}

Outcome done(std::initializer_list<Part> parts) {
    return because(Verdict::DONE, parts);
}

Outcome held(std::initializer_list<Part> parts) {
    return because(Verdict::HELD, parts);
}

Outcome failed(std::initializer_list<Part> parts) {
    return because(Verdict::FAILED, parts);
}

Outcome refused(std::initializer_list<Part> parts) {
    return because(Verdict::REFUSED, parts);
}

} // namespace flash
