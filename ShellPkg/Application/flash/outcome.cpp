#include "outcome.h"

namespace flash {
namespace {

constinit Text* last_reason = nullptr;

Outcome because(Verdict verdict, const char* format, std::initializer_list<Part> parts) {
    last_reason->clear();
    last_reason->add(format, parts);
    return {verdict};
}

} // namespace

Text& reason() {
    return *last_reason;
}

void keep_reason_in(Text& text) {
    last_reason = &text;
}

Outcome done(const char* format, std::initializer_list<Part> parts) {
    return because(Verdict::DONE, format, parts);
}

Outcome held(const char* format, std::initializer_list<Part> parts) {
    return because(Verdict::HELD, format, parts);
}

Outcome failed(const char* format, std::initializer_list<Part> parts) {
    return because(Verdict::FAILED, format, parts);
}

Outcome refused(const char* format, std::initializer_list<Part> parts) {
    return because(Verdict::REFUSED, format, parts);
}

} // namespace flash
