// The chip list's source: one TOML table a chip, written by people.
#pragma once

#include "chip_list.h"

#include <filesystem>
#include <optional>
#include <string_view>

namespace spilist {

/// A number of bytes: digits, then perhaps K or M.
std::optional<std::uint32_t> parse_size(std::string_view text);

/// Reads a source. @throws support::InputError with file, line and key
ChipList read_source(const std::filesystem::path& file);

} // namespace spilist
