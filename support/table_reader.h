// TOML files that people write by hand, read strictly.
#pragma once

#include "input_error.h"

#include <cstdint>
#include <filesystem>
#include <istream>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <toml++/toml.h>
#include <vector>

namespace support {

/// Parses a TOML file. @throws InputError with file and line
toml::table parse_toml(const std::filesystem::path& file);

/// The same from a text of that name.
toml::table parse_toml(std::istream& text, const std::filesystem::path& name);

/// A complaint about a word that is none of the known ones, which it lists.
/// @param what  what the word should be, such as "part"
std::string unknown_word(std::string_view what, std::string_view word,
                         std::span<const std::string_view> known);

/// Reads one table key by key. Every complaint is an InputError that names file, line and key.
class TableReader {
  public:
    TableReader(const toml::table& table, std::filesystem::path file);

    [[noreturn]] void fail(std::string_view key, const std::string& what) const;

    /// The line that the table begins on.
    std::size_t line() const;

    bool has(std::string_view key);

    /// The key's value; `otherwise` when the key is not there, which without one is an error.
    std::int64_t number(std::string_view key, std::int64_t least, std::int64_t most,
                        std::optional<std::int64_t> otherwise = std::nullopt);
    std::string text(std::string_view key, std::optional<std::string> otherwise = std::nullopt);

    /// True or false; false when the key is not there.
    bool flag(std::string_view key);

    /// The elements of the key's array; none when the key is not there.
    std::vector<std::int64_t> numbers(std::string_view key, std::int64_t least, std::int64_t most);
    std::vector<std::string> texts(std::string_view key);
    std::vector<const toml::table*> tables(std::string_view key);

    /// The key's table, or null.
    const toml::table* table(std::string_view key);

    /// Complains about a key that was not asked for.
    void finish() const;

  private:
    const toml::node* take(std::string_view key);

    const toml::table& table_;
    std::filesystem::path file_;
    std::set<std::string, std::less<>> asked_;
};

} // namespace support
