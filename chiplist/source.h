// The chip list's source: one TOML table a chip, written by people.
#pragma once

#include "chip_list.h"

#include <filesystem>

namespace chiplist {

/// Reads a source. @throws support::InputError with file, line and key
ChipList read_source(const std::filesystem::path& file);

} // namespace chiplist
