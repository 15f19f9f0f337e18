#include "report.h"

#include "support/input_error.h"

#include <iostream>

namespace emulator {

CycleLog::CycleLog(const std::filesystem::path& file, Journal& journal) {
    if (file.empty()) {
        return;
    }
    file_.open(file);
    if (!file_) {
        throw support::InputError(file.string() + ": cannot be written");
    }
    journal.listen_to_cycles([this](std::string_view line) { file_ << line << '\n'; });
}

void print_misuse(const char* program, const Journal& journal) {
    for (const std::string& misuse : journal.misuses()) {
        std::cerr << program << ": misuse: " << misuse << '\n';
    }
}

} // namespace emulator
