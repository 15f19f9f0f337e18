#include "source.h"

#include "support/table_reader.h"

#include <cctype>
#include <charconv>

namespace spilist {
namespace {

using support::TableReader;

std::uint32_t read_size(TableReader& reader, std::string_view key,
                        std::optional<std::uint32_t> otherwise) {
    if (otherwise && !reader.has(key)) {
        return *otherwise;
    }
    const auto size = parse_size(reader.text(key));
    if (!size) {
        reader.fail(key, "must be a size like \"4K\" or \"2M\"");
    }
    return *size;
}

std::uint8_t read_opcode(TableReader& reader, std::string_view key, std::uint8_t otherwise) {
    return static_cast<std::uint8_t>(reader.number(key, 0, 0xFF, otherwise));
}

/// Fields that chips share unless an entry says otherwise; in a source's common table all are
/// given.
void read_shared_fields(TableReader& reader, QFU_CHIP_ENTRY& entry) {
    for (const OpcodeField& field : kOpcodeFields) {
        entry.*field.value = read_opcode(reader, field.name, entry.*field.value);
    }
    entry.sector_size = read_size(reader, "sector", entry.sector_size);
    entry.block_size = read_size(reader, "block", entry.block_size);
}

/// Pairs of hexadecimal digits with or without spaces between them.
void read_id(TableReader& reader, QFU_CHIP_ENTRY& entry) {
    std::string digits;
    for (const char c : reader.text("id")) {
        if (c != ' ') {
            digits.push_back(c);
        }
    }
    const bool hex = digits.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos;
    if (!hex || digits.size() % 2 != 0 || digits.size() / 2 > entry.id_bytes.size()) {
        reader.fail("id", "must be bytes in hexadecimal like \"EF 40 16\"");
    }
    entry.id_len = static_cast<std::uint8_t>(digits.size() / 2);
    for (std::size_t i = 0; i < entry.id_len; ++i) {
        std::from_chars(&digits[2 * i], &digits[2 * i] + 2, entry.id_bytes[i], 16);
    }
}

Lines lines_of(const toml::table& table) {
    Lines lines = {
        {"", table.source().begin.line}
    };
    for (const auto& [key, value] : table) {
        lines.emplace(key.str(), value.source().begin.line);
    }
    return lines;
}

/// The common opcode erases the common sector; a sector of another size needs an opcode of its own.
/// That does not hold for blocks: there are chips whose D8 erases 32 KiB.
void check_sector(const Chip& chip, const QFU_CHIP_ENTRY& common, std::vector<Finding>& findings) {
    const std::uint32_t size = chip.entry.sector_size;
    if (common.sector_size != 0 && size != common.sector_size &&
        !chip.lines.contains("sector_erase")) {
        findings.push_back({chip.parts.front(), "sector",
                            size_text(size) +
                                " needs its own sector_erase; the common one erases " +
                                size_text(common.sector_size),
                            Effect::kMisused, chip.lines.at("sector")});
    }
}

Chip read_chip(const toml::table& table, const std::filesystem::path& file,
               const QFU_CHIP_ENTRY& common) {
    TableReader reader(table, file);
    Chip chip{common, reader.texts("parts"), reader.text("note", ""), lines_of(table)};
    if (chip.parts.empty()) {
        reader.fail("parts", "must name at least one part");
    }
    read_id(reader, chip.entry);
    chip.entry.whole_size = read_size(reader, "size", std::nullopt);
    read_shared_fields(reader, chip.entry);
    reader.finish();
    return chip;
}

} // namespace

std::optional<std::uint32_t> parse_size(std::string_view text) {
    std::uint64_t scale = 1;
    if (text.ends_with('K') || text.ends_with('M')) {
        scale = text.back() == 'K' ? 1024 : 1024 * 1024;
        text.remove_suffix(1);
    }
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number * scale > UINT32_MAX) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(number * scale);
}

ChipList read_source(const std::filesystem::path& file) {
    const toml::table root = support::parse_toml(file);
    TableReader reader(root, file);
    ChipList list{1, 1, {}, {}};
    list.lines = lines_of(root);
    for (const std::int64_t opcode : reader.numbers("id_opcodes", 1, 0xFF)) {
        list.id_opcodes.push_back(static_cast<std::uint32_t>(opcode));
    }
    QFU_CHIP_ENTRY common{};
    if (const toml::table* table = reader.table("common")) {
        TableReader common_reader(*table, file);
        read_shared_fields(common_reader, common);
        common_reader.finish();
    }
    for (const toml::table* chip : reader.tables("chip")) {
        list.chips.push_back(read_chip(*chip, file, common));
        check_sector(list.chips.back(), common, list.findings);
    }
    reader.finish();
    return list;
}

} // namespace spilist
