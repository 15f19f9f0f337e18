#include "show.h"

#include <algorithm>
#include <fmt/format.h>

namespace spilist {
namespace {

using Row = std::vector<std::string>;

Row head() {
    Row row = {"#", "ID"};
    for (const SizeField& field : kSizeFields) {
        row.emplace_back(field.name);
    }
    for (const OpcodeField& field : kOpcodeFields) {
        row.emplace_back(field.column);
    }
    row.emplace_back("full erase");
    row.emplace_back("parts");
    return row;
}

Row row_of(const Chip& chip, std::size_t index) {
    Row row = {std::to_string(index), id_text(chip.entry)};
    for (const SizeField& field : kSizeFields) {
        row.push_back(size_text(chip.entry.*field.value));
    }
    for (const OpcodeField& field : kOpcodeFields) {
        row.push_back(hex_byte(chip.entry.*field.value));
    }
    row.push_back(fmt::format("{:.1f} s", least_erase_seconds(chip.entry)));
    row.push_back(parts_text(chip));
    return row;
}

/// Columns as wide as their widest cell; numbers to the right, the ID and the last to the left.
void print_table(const std::vector<Row>& rows, std::ostream& out) {
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            const std::string gap(widths[column] - row[column].size(), ' ');
            const bool left = column == 1 || column + 1 == row.size();
            line += column == 0 ? "" : "  ";
            line += left ? row[column] + gap : gap + row[column];
        }
        out << line.substr(0, line.find_last_not_of(' ') + 1) << '\n';
    }
}

} // namespace

void show(const ChipList& list, std::ostream& out) {
    out << "version " << int{list.version_hi} << '.' << int{list.version_lo}
        << ", identification opcodes";
    for (const std::uint32_t word : list.id_opcodes) {
        out << fmt::format(" {:02X}", word);
    }
    out << '\n';
    std::vector<Row> rows = {head()};
    for (std::size_t i = 0; i < list.chips.size(); ++i) {
        rows.push_back(row_of(list.chips[i], i));
    }
    print_table(rows, out);
    out << "Opcodes: ";
    for (const OpcodeField& field : kOpcodeFields) {
        out << (&field == kOpcodeFields ? "" : ", ") << field.column << " = " << field.name;
    }
    out << ".\nFull erase: the least time that erasing every sector takes.\n";
    for (std::size_t i = 0; i < list.chips.size(); ++i) {
        if (!list.chips[i].note.empty()) {
            out << label(list, i) << ": " << list.chips[i].note << '\n';
        }
    }
}

} // namespace spilist
