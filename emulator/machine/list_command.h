// What machine files can name.
#pragma once

#include <map>
#include <string>

namespace emulator {

/// What `qfu-emu list` can print on standard output: the word on its command line, and who prints.
const std::map<std::string, void (*)()>& list_topics();

} // namespace emulator
