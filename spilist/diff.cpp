#include "diff.h"

#include <algorithm>
#include <map>
#include <utility>

namespace spilist {
namespace {

/// A record's identification, and how many of the list's earlier records have the same.
using Key = std::pair<std::string, int>;

std::vector<Key> keys_of(const ChipList& list) {
    std::vector<Key> keys;
    std::map<std::string, int> seen;
    for (const Chip& chip : list.chips) {
        const std::string id = id_text(chip.entry);
        keys.emplace_back(id, seen[id]++);
    }
    return keys;
}

std::string opcodes_text(const std::vector<std::uint32_t>& words) {
    std::string text;
    for (const std::uint32_t word : words) {
        text += text.empty() ? "" : " ";
        text += word > 0xFF ? std::to_string(word) : hex_byte(static_cast<std::uint8_t>(word));
    }
    return text;
}

std::string version_text(const ChipList& list) {
    return std::to_string(list.version_hi) + "." + std::to_string(list.version_lo);
}

std::string summary(const Chip& chip) {
    return id_text(chip.entry) + ", " + size_text(chip.entry.whole_size);
}

/// Compares two lists and collects.
class Comparison {
  public:
    Comparison(const ChipList& a, const ChipList& b)
        : a_(a), b_(b), a_keys_(keys_of(a)), b_keys_(keys_of(b)) {}

    std::vector<Difference> run() {
        add("list", "version", version_text(a_), version_text(b_));
        add("list", "id_opcodes", opcodes_text(a_.id_opcodes), opcodes_text(b_.id_opcodes));
        for (std::size_t i = 0; i < a_.chips.size(); ++i) {
            const auto twin = std::ranges::find(b_keys_, a_keys_[i]);
            if (twin == b_keys_.end()) {
                add(label(a_, i), "record", summary(a_.chips[i]), "");
            } else {
                compare(i, static_cast<std::size_t>(twin - b_keys_.begin()));
            }
        }
        for (std::size_t i = 0; i < b_.chips.size(); ++i) {
            if (std::ranges::find(a_keys_, b_keys_[i]) == a_keys_.end()) {
                add(label(b_, i), "record", "", summary(b_.chips[i]));
            }
        }
        compare_order();
        return differences_;
    }

  private:
    void add(std::string entry, std::string field, const std::string& before,
             const std::string& after) {
        if (before != after) {
            differences_.push_back({std::move(entry), std::move(field), before, after});
        }
    }

    void compare(std::size_t i, std::size_t j) {
        const QFU_CHIP_ENTRY& a = a_.chips[i].entry;
        const QFU_CHIP_ENTRY& b = b_.chips[j].entry;
        // Either list may be the one that has names.
        const std::string name = a_.chips[i].parts.empty() ? label(b_, j) : label(a_, i);
        add(name, "id_len", std::to_string(a.id_len), std::to_string(b.id_len));
        for (const SizeField& field : kSizeFields) {
            add(name, field.name, size_text(a.*field.value), size_text(b.*field.value));
        }
        for (const OpcodeField& field : kOpcodeFields) {
            add(name, field.name, hex_byte(a.*field.value), hex_byte(b.*field.value));
        }
    }

    /// The order of the records that both have decides which one a chip gets.
    void compare_order() {
        const auto common = [](const std::vector<Key>& keys, const std::vector<Key>& others) {
            std::vector<Key> result;
            std::ranges::copy_if(keys, std::back_inserter(result), [&](const Key& key) {
                return std::ranges::find(others, key) != others.end();
            });
            return result;
        };
        const std::vector<Key> a = common(a_keys_, b_keys_);
        const std::vector<Key> b = common(b_keys_, a_keys_);
        const auto [first, other] = std::ranges::mismatch(a, b);
        if (first != a.end()) {
            add("list", "order", first->first, other->first);
        }
    }

    const ChipList& a_;
    const ChipList& b_;
    std::vector<Key> a_keys_;
    std::vector<Key> b_keys_;
    std::vector<Difference> differences_;
};

} // namespace

std::vector<Difference> diff(const ChipList& a, const ChipList& b) {
    return Comparison(a, b).run();
}

} // namespace spilist
