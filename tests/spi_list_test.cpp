#include "qfu/spi_list.h"

#include "lab.h"

#include <gtest/gtest.h>

namespace {

using lab::Bytes;

/// The shipped list with other bytes at `offset`; a byte that nobody reads brings the sum back to
/// 0.
Bytes with(std::size_t offset, const Bytes& bytes) {
    constexpr std::size_t kUnread = 60;
    Bytes list = lab::shipped_chip_list();
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        std::uint8_t& byte = list[offset + i];
        list[kUnread] = static_cast<std::uint8_t>(list[kUnread] + byte - bytes[i]);
        byte = bytes[i];
    }
    return list;
}

/// A table of which the first `count` entries have a byte that is not zero at `at`.
Bytes table(std::size_t entries, std::size_t size, std::size_t at, std::size_t count) {
    Bytes bytes(entries * size);
    for (std::size_t i = 0; i < count; ++i) {
        bytes[size * i + at] = 8;
    }
    return bytes;
}

/// Records of which the first `count` have a size.
Bytes records(std::size_t count) {
    return table(64, 44, 18, count);
}

/// Read-identification opcodes, a word each.
Bytes opcodes(std::size_t count) {
    return table(16, 4, 0, count);
}

TEST(ChipList, IsValidWithMagicLengthVersionRecordsAndOpcodes) {
    Bytes longer = lab::shipped_chip_list();
    longer.resize(5000, 0xEE);
    for (const Bytes& good :
         {longer, with(4, {0xFF}), with(10, {1, 5}), with(10, {2, 0}), with(128, records(1)),
          with(128, records(63)), with(64, opcodes(15))}) {
        EXPECT_TRUE(qfu_chiplist_valid(good));
    }
    const Bytes shorter(longer.begin(), longer.begin() + 2943);
    for (const Bytes& bad :
         {shorter, with(0, {'l'}), with(3, {'q'}), with(4, {0xFE}), with(6, {0x80}),
          with(7, {0x0A}), with(10, {1, 0}), with(10, {0, 9}), with(128, records(0)),
          with(128, records(64)), with(64, opcodes(16)), Bytes{}}) {
        EXPECT_FALSE(qfu_chiplist_valid(bad));
    }
}

TEST(IdMatch, ComparesAsManyBytesAsTheRecordHas) {
    const auto match = [](std::vector<std::uint8_t> id, std::uint32_t value) {
        QFU_CHIP_ENTRY entry{};
        entry.id_len = static_cast<std::uint8_t>(id.size());
        std::ranges::copy(id, entry.id_bytes.begin());
        return qfu_spiflash_id_match(entry, value) == 0;
    };
    EXPECT_TRUE(match({0x1F, 0x44}, 0x0001441F));
    EXPECT_FALSE(match({0x1F, 0x44, 0x01}, 0x0000441F));
    EXPECT_TRUE(match({}, 0x12345678));
    EXPECT_TRUE(match({1, 2, 3, 4, 1, 2}, 0x04030201)) << "the value repeats";
    EXPECT_FALSE(match({1, 2, 3, 4, 5}, 0x04030201));
    EXPECT_TRUE(match(Bytes(15), 0)) << "a record has room for 15";
    QFU_CHIP_ENTRY broken{};
    broken.id_len = 16;
    EXPECT_EQ(qfu_spiflash_id_match(broken, 0), 1) << "looks past the identification";
}

} // namespace
