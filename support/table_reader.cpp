#include "table_reader.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

namespace support {
namespace {

template <class Value>
const Value& as_array_element(const toml::node& element, const TableReader& reader,
                              std::string_view key, const std::string& what) {
    const auto* value = element.as<Value>();
    if (value == nullptr) {
        reader.fail(key, "must hold nothing but " + what);
    }
    return value->get();
}

std::string range(std::int64_t least, std::int64_t most) {
    return "from " + std::to_string(least) + " to " + std::to_string(most);
}

} // namespace

toml::table parse_toml(std::istream& text, const std::filesystem::path& name) {
    try {
        return toml::parse(text, name.string());
    } catch (const toml::parse_error& error) {
        throw InputError(name.string() + ":" + std::to_string(error.source().begin.line) + ": " +
                         std::string(error.description()));
    }
}

toml::table parse_toml(const std::filesystem::path& file) {
    if (std::filesystem::is_directory(file)) {
        throw InputError(file.string() + ": is a folder; it must be a TOML file");
    }
    std::ifstream text(file);
    if (!text) {
        throw InputError(file.string() + ": cannot be read: " + std::strerror(errno));
    }
    return parse_toml(text, file);
}

std::string unknown_word(std::string_view what, std::string_view word,
                         std::span<const std::string_view> known) {
    std::string text = "unknown " + std::string(what) + " \"" + std::string(word) + "\"; known:";
    for (const std::string_view other : known) {
        text.append(other == known.front() ? " \"" : ", \"").append(other).append("\"");
    }
    return text;
}

TableReader::TableReader(const toml::table& table, std::filesystem::path file)
    : table_(table), file_(std::move(file)) {}

void TableReader::fail(std::string_view key, const std::string& what) const {
    const toml::node* node = table_.get(key);
    const auto& source = node != nullptr ? node->source() : table_.source();
    throw InputError(file_.string() + ":" + std::to_string(source.begin.line) + ": " +
                     std::string(key) + ": " + what);
}

std::int64_t TableReader::number(std::string_view key, std::int64_t least, std::int64_t most,
                                 std::optional<std::int64_t> otherwise) {
    const toml::node* node = take(key);
    if (node == nullptr) {
        return otherwise ? *otherwise : (fail(key, "is missing"), 0);
    }
    const auto value = node->value_exact<std::int64_t>();
    if (!value || *value < least || *value > most) {
        fail(key, "must be a number " + range(least, most));
    }
    return *value;
}

std::string TableReader::text(std::string_view key, std::optional<std::string> otherwise) {
    const toml::node* node = take(key);
    if (node == nullptr) {
        return otherwise ? *otherwise : (fail(key, "is missing"), "");
    }
    const auto value = node->value_exact<std::string>();
    if (!value) {
        fail(key, "must be a text");
    }
    return *value;
}

bool TableReader::flag(std::string_view key) {
    const toml::node* node = take(key);
    if (node != nullptr && !node->is_boolean()) {
        fail(key, "must be true or false");
    }
    return node != nullptr && node->as_boolean()->get();
}

std::vector<std::int64_t> TableReader::numbers(std::string_view key, std::int64_t least,
                                               std::int64_t most) {
    std::vector<std::int64_t> result;
    if (const toml::node* node = take(key)) {
        if (!node->is_array()) {
            fail(key, "must be a list of numbers");
        }
        for (const toml::node& element : *node->as_array()) {
            const auto value = as_array_element<std::int64_t>(element, *this, key, "numbers");
            if (value < least || value > most) {
                fail(key, "must hold numbers " + range(least, most));
            }
            result.push_back(value);
        }
    }
    return result;
}

std::vector<std::string> TableReader::texts(std::string_view key) {
    std::vector<std::string> result;
    if (const toml::node* node = take(key)) {
        if (!node->is_array()) {
            fail(key, "must be a list of texts");
        }
        for (const toml::node& element : *node->as_array()) {
            result.push_back(as_array_element<std::string>(element, *this, key, "texts"));
        }
    }
    return result;
}

std::vector<const toml::table*> TableReader::tables(std::string_view key) {
    std::vector<const toml::table*> result;
    if (const toml::node* node = take(key)) {
        if (!node->is_array_of_tables()) {
            fail(key, "must be an array of tables");
        }
        for (const toml::node& element : *node->as_array()) {
            result.push_back(element.as_table());
        }
    }
    return result;
}

const toml::table* TableReader::table(std::string_view key) {
    const toml::node* node = take(key);
    if (node != nullptr && !node->is_table()) {
        fail(key, "must be a table");
    }
    return node == nullptr ? nullptr : node->as_table();
}

void TableReader::finish() const {
    for (const auto& [key, node] : table_) {
        if (!asked_.contains(key.str())) {
            const std::vector<std::string_view> known(asked_.begin(), asked_.end());
            fail(key.str(), unknown_word("key", key.str(), known));
        }
    }
}

std::size_t TableReader::line() const {
    return table_.source().begin.line;
}

bool TableReader::has(std::string_view key) {
    asked_.emplace(key);
    return table_.contains(key);
}

const toml::node* TableReader::take(std::string_view key) {
    asked_.emplace(key);
    return table_.get(key);
}

} // namespace support
