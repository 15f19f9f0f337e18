#include "check.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <span>

namespace chiplist {
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
    explicit Checker(const ChipList& list) : list_(list) {}

    std::vector<Finding> run() {
        check_id_opcodes();
        check_count();
        for (std::size_t i = 0; i < list_.chips.size(); ++i) {
            check_id(i);
            check_order(i);
            check_sizes(i);
            check_opcodes(i);
        }
        return findings_;
    }

  private:
    void add(std::string entry, std::string field, std::string what,
             Effect effect = Effect::kMisused) {
        findings_.push_back({std::move(entry), std::move(field), std::move(what), effect});
    }

    void check_id_opcodes() {
        if (list_.id_opcodes.empty()) {
            add("list", "id_opcodes", "holds no opcode, so no chip is ever asked for its ID");
        }
        if (list_.id_opcodes.size() > kMostOpcodes) {
            add("list", "id_opcodes", "holds more than " + std::to_string(kMostOpcodes),
                Effect::kRejected);
        }
        for (const std::uint32_t word : list_.id_opcodes) {
            if (word > 0xFF) {
                add("list", "id_opcodes",
                    std::to_string(word) + " is more than the byte that an opcode is");
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
                    add("list", "id_opcodes",
                        hex_byte(opcode) + " is the opcode " + field.name + " of " +
                            label(list_, i));
                    return;
                }
            }
        }
    }

    void check_count() {
        if (list_.chips.empty()) {
            add("list", "records", "there are none", Effect::kRejected);
        }
        if (list_.chips.size() > kMostChips) {
            add("list", "records",
                std::to_string(list_.chips.size()) + " are more than the " +
                    std::to_string(kMostChips) + " that a list has room for",
                Effect::kRejected);
        }
    }

    void check_id(std::size_t i) {
        const QFU_CHIP_ENTRY& entry = list_.chips[i].entry;
        const std::string name = label(list_, i);
        if (entry.id_len == 0) {
            add(name, "id", "is empty, which matches every chip");
            return;
        }
        if (entry.id_len > kIdBytes) {
            add(name, "id",
                "has " + std::to_string(entry.id_len) + " bytes; a chip is asked for " +
                    std::to_string(kIdBytes));
        }
        const auto id = compared_bytes(entry);
        if (!id) {
            add(name, "id", "matches no chip");
            return;
        }
        const auto all = [&](std::uint8_t byte) {
            return std::ranges::all_of(*id, [&](std::uint8_t b) { return b == byte; });
        };
        if (all(0x00) || all(0xFF)) {
            add(name, "id", "is what a bus without a chip answers");
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
            add(label(list_, i), "id",
                (other->size() == mine->size() ? "is also the ID of "
                                               : "is hidden by the shorter ID of ") +
                    label(list_, before));
        }
    }

    void check_sizes(std::size_t i) {
        const QFU_CHIP_ENTRY& entry = list_.chips[i].entry;
        const std::string name = label(list_, i);
        for (const SizeField& field : kSizeFields) {
            const std::uint32_t size = entry.*field.value;
            if (!std::has_single_bit(size)) {
                add(name, field.name, std::to_string(size) + " is no power of two");
            }
        }
        if (entry.whole_size > kAddressable) {
            add(name, "size", "is more than the 16 MiB that 24 address bits reach");
        }
        if (entry.sector_size > entry.whole_size) {
            add(name, "sector", "is larger than the chip");
        }
        if (entry.block_size > entry.whole_size) {
            add(name, "block", "is larger than the chip");
        }
    }

    void check_opcodes(std::size_t i) {
        const QFU_CHIP_ENTRY& entry = list_.chips[i].entry;
        for (const OpcodeField& field : kOpcodeFields) {
            const std::uint8_t opcode = entry.*field.value;
            if (opcode == 0) {
                add(label(list_, i), field.name, "is missing");
                continue;
            }
            for (const OpcodeField* other = kOpcodeFields; other != &field; ++other) {
                if (entry.*other->value == opcode && !may_be_equal(entry, *other, field)) {
                    add(label(list_, i), field.name,
                        hex_byte(opcode) + " is also the opcode " + other->name);
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
};

} // namespace

std::vector<Finding> check(const ChipList& list) {
    return Checker(list).run();
}

} // namespace chiplist
