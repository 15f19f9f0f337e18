// Help for whoever mistyped a word.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace support {

/// The word that a mistyped one most likely means, in any case of letters; empty when none is near.
std::string_view nearest_word(std::string_view typed, std::span<const std::string_view> words);

/// A complaint about an unknown word: names the nearest of the known ones or, when none is near,
/// says what is known.
/// @param what   what the word should be, such as "part"
/// @param known  says where the known words are; without it they are listed
std::string unknown_word(std::string_view what, std::string_view typed,
                         std::span<const std::string_view> words, std::string_view known = "");

} // namespace support
