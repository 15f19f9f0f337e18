#include "check.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <set>
#include <span>

namespace spilist {
namespace {

/// Bytes that a 24-bit address reaches.
constexpr std::uint32_t kAddressable = 1U << 24;

/// Identification bytes that a cycle brings in.
constexpr std::size_t kIdBytes = 4;

constexpr std::size_t kMostChips = QFU_CHIP_LIST_RECORDS - 1;
constexpr std::size_t kMostOpcodes = QFU_CHIP_LIST_OPCODES - 1;

/// The bytes that a record compares; absent when no chip can answer with them, because they do not
/// fit or want the bytes behind the fourth, which are the first again, to be others.
std::optional<std::span<const std::uint8_t>> compared_bytes(const QFU_CHIP_ENTRY& entry) {
    const auto& id = entry.id_bytes;
    if (entry.id_len > id.size()) {
        return std::nullopt;
    }
    for (std::size_t i = kIdBytes; i < entry.id_len; ++i) {
        if (id[i] != id[i % kIdBytes]) {
            return std::nullopt;
        }
    }
    return std::span(id).first(std::min<std::size_t>(entry.id_len, kIdBytes));
}

/// The findings of one list, as they are made.
class Checker {
  public:
    explicit Checker(const ChipList& list) : list_(list), findings_(list.findings) {}

    std::vector<Finding> run() {
        if (list_.is_list) {
            check_id_opcodes();
            check_count();
            for (std::size_t i = 0; i < list_.chips.size(); ++i) {
                check_parts(i);
                check_id(i);
                check_order(i);
                check_sizes(i);
                check_opcodes(i);
            }
        }
        std::ranges::stable_sort(findings_, {}, &Finding::line);
        return findings_;
    }

  private:
    /// The line of a key, or of its table when the key is not written there.
    static std::uint32_t line_of(const Lines& lines, const std::string& key) {
        const auto own = lines.find(key);
        const auto at = own != lines.end() ? own : lines.find("");
        return at != lines.end() ? at->second : 0;
    }

    void add(std::size_t i, const std::string& field, std::string what) {
        findings_.push_back({label(list_, i), field, std::move(what), Effect::kMisused,
                             line_of(list_.chips[i].lines, field)});
    }

    void add_to_list(const std::string& field, std::string what, Effect effect) {
        findings_.push_back({"list", field, std::move(what), effect, line_of(list_.lines, field)});
    }

    void check_id_opcodes() {
        if (list_.id_opcodes.empty()) {
            add_to_list("id_opcodes", "holds no opcode, so no chip is ever asked for its ID",
                        Effect::kMisused);
        }
        if (list_.id_opcodes.size() > kMostOpcodes) {
            add_to_list("id_opcodes", "holds more than " + std::to_string(kMostOpcodes),
                        Effect::kRejected);
        }
        for (const std::uint32_t word : list_.id_opcodes) {
            if (word > 0xFF) {
                add_to_list("id_opcodes",
                            std::to_string(word) + " does not fit into the byte of an opcode",
                            Effect::kMisused);
            } else {
                check_id_opcode(static_cast<std::uint8_t>(word));
            }
        }
    }

    /// A chip that is asked with the opcode of another of its commands would carry that out.
    void check_id_opcode(std::uint8_t opcode) {
        for (std::size_t i = 0; i < list_.chips.size(); ++i) {
            for (const OpcodeField& field : kOpcodeFields) {
                if (list_.chips[i].entry.*field.value == opcode) {
                    add_to_list("id_opcodes",
                                hex_byte(opcode) + " is the opcode " + field.name + " of " +
                                    label(list_, i),
                                Effect::kMisused);
                    return;
                }
            }
        }
    }

    void check_count() {
        if (list_.chips.empty()) {
            add_to_list("records", "there are none", Effect::kRejected);
        }
        if (list_.chips.size() > kMostChips) {
            add_to_list("records",
                        "there are " + std::to_string(list_.chips.size()) +
                            "; a list has room for " + std::to_string(kMostChips),
                        Effect::kRejected);
            findings_.back().line = line_of(list_.chips[kMostChips].lines, "");
        }
    }

    /// Two entries with one name: one of them has the name of another part.
    void check_parts(std::size_t i) {
        for (const std::string& part : list_.chips[i].parts) {
            if (!parts_.insert(part).second) {
                add(i, "parts", part + " is already in the list");
            }
        }
    }

    void check_id(std::size_t i) {
        const QFU_CHIP_ENTRY& entry = list_.chips[i].entry;
        if (entry.id_len == 0) {
            add(i, "id", "is empty, which matches every chip");
            return;
        }
        if (entry.id_len > kIdBytes) {
            add(i, "id",
                "has " + std::to_string(entry.id_len) + " bytes; a chip is asked for " +
                    std::to_string(kIdBytes));
        }
        const auto id = compared_bytes(entry);
        if (!id) {
            add(i, "id", "matches no chip");
            return;
        }
        const auto all = [&](std::uint8_t byte) {
            return std::ranges::all_of(*id, [&](std::uint8_t b) { return b == byte; });
        };
        if (all(0x00) || all(0xFF)) {
            add(i, "id", "is what a bus without a chip answers");
        }
    }

    /// A record that matches whatever a later one matches hides it.
    void check_order(std::size_t i) {
        const auto mine = compared_bytes(list_.chips[i].entry);
        for (std::size_t before = 0; mine && before < i; ++before) {
            const auto other = compared_bytes(list_.chips[before].entry);
            if (!other || other->size() > mine->size() ||
                !std::ranges::equal(*other, mine->first(other->size()))) {
                continue;
            }
            add(i, "id",
                (other->size() == mine->size() ? "is also the ID of "
                                               : "is hidden by the shorter ID of ") +
                    label(list_, before));
        }
    }

    void check_sizes(std::size_t i) {
        const QFU_CHIP_ENTRY& entry = list_.chips[i].entry;
        for (const SizeField& field : kSizeFields) {
            const std::uint32_t size = entry.*field.value;
            if (!std::has_single_bit(size)) {
                add(i, field.name, std::to_string(size) + " is not a power of two");
            }
        }
        if (entry.whole_size > kAddressable) {
            add(i, "size", "is more than the 16 MiB that 24 address bits reach");
        }
        if (entry.sector_size > entry.whole_size) {
            add(i, "sector", "is larger than the chip");
        }
        if (entry.block_size > entry.whole_size) {
            add(i, "block", "is larger than the chip");
        }
    }

    void check_opcodes(std::size_t i) {
        const QFU_CHIP_ENTRY& entry = list_.chips[i].entry;
        for (const OpcodeField& field : kOpcodeFields) {
            const std::uint8_t opcode = entry.*field.value;
            if (opcode == 0) {
                add(i, field.name, "is missing");
                continue;
            }
            for (const OpcodeField* other = kOpcodeFields; other != &field; ++other) {
                if (entry.*other->value == opcode && !may_be_equal(entry, *other, field)) {
                    add(i, field.name, hex_byte(opcode) + " is also the opcode " + other->name);
                }
            }
        }
    }

    /// A chip with one erase unit has one opcode for both of a record's.
    static bool may_be_equal(const QFU_CHIP_ENTRY& entry, const OpcodeField& a,
                             const OpcodeField& b) {
        return a.value == &QFU_CHIP_ENTRY::op_sector_erase &&
               b.value == &QFU_CHIP_ENTRY::op_block_erase && entry.sector_size == entry.block_size;
    }

    const ChipList& list_;
    std::vector<Finding> findings_;
    std::set<std::string> parts_; ///< of the records that were looked at
};

} // namespace

std::vector<Finding> check(const ChipList& list) {
    return Checker(list).run();
}

bool is_rejected(const std::vector<Finding>& findings) {
    return std::ranges::find(findings, Effect::kRejected, &Finding::effect) != findings.end();
}

} // namespace spilist
