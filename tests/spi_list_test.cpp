#include "spi_list.h"

#include "chip_list.h"
#include "image.h"
#include "lab.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using lab::Bytes;
using lab::Lab;

/// Brings the sum of the checked bytes back to 0 through a byte that nobody reads.
Bytes resealed(Bytes list) {
    std::uint8_t sum = 0;
    list[5] = 0;
    for (std::size_t i = 0; i < 2944; ++i) {
        sum = static_cast<std::uint8_t>(sum + list[i]);
    }
    list[5] = static_cast<std::uint8_t>(-sum);
    return list;
}

Bytes with(std::size_t offset, std::uint8_t value) {
    Bytes list = lab::shipped_chip_list();
    list[offset] = value;
    return resealed(list);
}

constexpr std::size_t kRecords = 128;
constexpr std::size_t kRecordSize = 44;
constexpr std::size_t kWholeSize = 16;

Bytes with_records(std::size_t count) {
    Bytes list = lab::shipped_chip_list();
    for (std::size_t i = 0; i < 64; ++i) {
        std::uint8_t* record = &list[kRecords + kRecordSize * i];
        std::memset(record, 0, kRecordSize);
        record[kWholeSize + 2] = i < count ? 8 : 0;
    }
    return resealed(list);
}

TEST(ChipList, IsValidAsItIsShipped) {
    EXPECT_TRUE(qfu_chiplist_valid(lab::shipped_chip_list()));
}

TEST(ChipList, HasAMagicAMarkerAndALength) {
    EXPECT_FALSE(qfu_chiplist_valid(with(0, 'l')));
    EXPECT_FALSE(qfu_chiplist_valid(with(3, 'q')));
    EXPECT_FALSE(qfu_chiplist_valid(with(4, 0xFE)));
    EXPECT_FALSE(qfu_chiplist_valid(with(6, 0x80)));
    Bytes list = lab::shipped_chip_list();
    list.pop_back();
    EXPECT_FALSE(qfu_chiplist_valid(list));
    EXPECT_FALSE(qfu_chiplist_valid({}));
    list = lab::shipped_chip_list();
    list.resize(5000, 0xEE);
    EXPECT_TRUE(qfu_chiplist_valid(list)) << "bytes behind the list do not count";
}

TEST(ChipList, HasAVersionFrom1Point1On) {
    const auto version = [](std::uint8_t high, std::uint8_t low) {
        Bytes list = lab::shipped_chip_list();
        list[10] = high;
        list[11] = low;
        return qfu_chiplist_valid(resealed(list));
    };
    EXPECT_TRUE(version(1, 1));
    EXPECT_TRUE(version(1, 5));
    EXPECT_TRUE(version(2, 0));
    EXPECT_FALSE(version(1, 0));
    EXPECT_FALSE(version(0, 9));
}

TEST(ChipList, AddsUpToZeroIncludingReservedBytes) {
    for (const std::size_t offset : {5U, 9U, 60U, 127U, 200U, 2943U}) {
        Bytes list = lab::shipped_chip_list();
        list[offset] = static_cast<std::uint8_t>(list[offset] + 1);
        EXPECT_FALSE(qfu_chiplist_valid(list)) << offset;
    }
}

TEST(ChipList, HoldsOneTo63ChipsAndAtMost15Opcodes) {
    EXPECT_FALSE(qfu_chiplist_valid(with_records(0)));
    EXPECT_TRUE(qfu_chiplist_valid(with_records(1)));
    EXPECT_TRUE(qfu_chiplist_valid(with_records(63)));
    EXPECT_FALSE(qfu_chiplist_valid(with_records(64)));
    Bytes list = lab::shipped_chip_list();
    for (std::size_t word = 0; word < 16; ++word) {
        list[64 + 4 * word] = 0x9F;
    }
    EXPECT_FALSE(qfu_chiplist_valid(resealed(list)));
    list[64 + 4 * 15] = 0;
    EXPECT_TRUE(qfu_chiplist_valid(resealed(list)));
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
}

TEST(IdMatch, NeverLooksBehindTheIdentificationOfABrokenRecord) {
    QFU_CHIP_ENTRY entry{};
    entry.id_len = 16;
    EXPECT_EQ(qfu_spiflash_id_match(entry, 0), 1);
    entry.id_len = 255;
    EXPECT_EQ(qfu_spiflash_id_match(entry, 0), 1);
}

TEST(Loading, ARejectedListLeavesTheRunWithoutOne) {
    Lab lab;
    lab.kind(1);
    for (const Bytes& list : {with(4, 0), Bytes{}, Bytes(100, 0)}) {
        lab.write_file("spilist.bin", list);
        const auto run = lab.run("-l");
        EXPECT_EQ(run.status, EFI_SUCCESS);
        EXPECT_TRUE(run.text().starts_with("No SPI Flash chips list file.\n"
                                           "\nNo found any SPI Flash dev...1327\n"));
    }
}

TEST(Loading, SaysWhenThereIsNoMemoryForIt) {
    Lab lab;
    lab.kind(1);
    std::filesystem::resize_file(lab.folder() / "spilist.bin", 1ULL << 30);
    EXPECT_TRUE(lab.run("-l").text().starts_with(
        "*tmp_buffer==> resource is not enough(0x40000000).\nNo SPI Flash chips list file.\n"));
}

TEST(Loading, HoldsTheFileInWholeKilobytes) {
    for (const auto& [size, rounded] : {std::pair(2944U, 3072U), std::pair(3073U, 4096U)}) {
        Lab lab;
        lab.kind(1);
        std::filesystem::resize_file(lab.folder() / "spilist.bin", size);
        lab.run("-l");
        const std::size_t with_list = lab.firmware().pool().peak();
        EXPECT_GE(with_list, rounded);
        EXPECT_LT(with_list, rounded + 16 * 1024);
    }
}

} // namespace
