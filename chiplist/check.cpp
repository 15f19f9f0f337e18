#include "check.h"

#include <algorithm>
#include <bit>
#include <span>

namespace chiplist {
namespace {

/// Bytes that a 24-bit address reaches.
constexpr std::uint32_t kAddressable = 1U << 24;

/// Identification bytes that a cycle brings in.
constexpr std::size_t kIdBytes = 4;

constexpr std::size_t kMostChips = QFU_CHIP_LIST_RECORDS - 1;
constexpr std::size_t kMostOpcodes = QFU_CHIP_LIST_OPCODES - 1;

std::span<const std::uint8_t> id_of(const QFU_CHIP_ENTRY& entry) {
    return std::span(entry.id_bytes)
        .first(std::min<std::size_t>(entry.id_len, entry.id_bytes.size()));
}

/// The findings of one list, as they are made.
class Checker {
  public:
    explicit Checker(const ChipList& list) : list_(list) {}

    std::vector<Finding> run() {
        check_counts();
        for (std::size_t i = 0; i < list_.chips.size(); ++i) {
            check_id(i);
            check_sizes(i);
            check_opcodes(i);
        }
        return findings_;
    }

  private:
    void add(std::string entry, std::string field, std::string what) {
        findings_.push_back({std::move(entry), std::move(field), std::move(what)});
    }

    void check_counts() {
        if (list_.id_opcodes.empty()) {
            add("list", "id_opcodes", "holds no opcode, so no chip is ever asked for its ID");
        }
        if (list_.id_opcodes.size() > kMostOpcodes) {
            add("list", "id_opcodes", "holds more than " + std::to_string(kMostOpcodes));
        }
        if (list_.chips.empty()) {
            add("list", "records", "there are none");
        }
        if (list_.chips.size() > kMostChips) {
            add("list", "records",
                std::to_string(list_.chips.size()) + " are more than the " +
                    std::to_string(kMostChips) + " that a list has room for");
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
        for (std::size_t before = 0; before < i; ++before) {
            const auto other = id_of(list_.chips[before].entry);
            const auto mine = id_of(entry);
            if (other.empty() || other.size() > mine.size() ||
                !std::ranges::equal(other, mine.first(other.size()))) {
                continue;
            }
            add(name, "id",
                (other.size() == mine.size() ? "is also the ID of "
                                             : "is hidden by the shorter ID of ") +
                    label(list_, before));
        }
    }

    void check_size(const std::string& name, const std::string& field, std::uint32_t size) {
        if (!std::has_single_bit(size)) {
            add(name, field, std::to_string(size) + " is no power of two");
        }
    }

    void check_sizes(std::size_t i) {
        const QFU_CHIP_ENTRY& entry = list_.chips[i].entry;
        const std::string name = label(list_, i);
        check_size(name, "size", entry.whole_size);
        check_size(name, "sector", entry.sector_size);
        check_size(name, "block", entry.block_size);
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
        struct Opcode {
            const char* field;
            std::uint8_t value;
        };
        const QFU_CHIP_ENTRY& entry = list_.chips[i].entry;
        const Opcode opcodes[] = {
            {"write_enable", entry.op_write_enable},
            {"read_status",  entry.op_read_status },
            {"write_status", entry.op_write_status},
            {"read",         entry.op_read        },
            {"program",      entry.op_program     },
            {"sector_erase", entry.op_sector_erase},
            {"block_erase",  entry.op_block_erase },
            {"chip_erase",   entry.op_chip_erase  },
        };
        for (const Opcode& opcode : opcodes) {
            if (opcode.value == 0) {
                add(label(list_, i), opcode.field, "is missing");
            }
        }
    }

    const ChipList& list_;
    std::vector<Finding> findings_;
};

} // namespace

std::vector<Finding> check(const ChipList& list) {
    return Checker(list).run();
}

} // namespace chiplist
