// Any bytes as a chip list: the program's loader and the tool's reader must survive them, agree on
// what is a list, and mean the same by it.
#include "bench.h"
#include "spilist/check.h"
#include "spilist/image.h"

#include <algorithm>
#include <numeric>

namespace {

using lab::Bytes;

std::uint32_t id_of(const QFU_CHIP_ENTRY& entry) {
    std::uint32_t id = 0;
    std::memcpy(&id, entry.id_bytes.data(), std::min<std::size_t>(entry.id_len, sizeof id));
    return id;
}

/// Of a list with nothing to find, each record is the one that its chip gets, and the bytes can be
/// made again from what was read.
void expect_served(const spilist::ChipList& list) {
    for (const spilist::Chip& chip : list.chips) {
        const auto first = std::ranges::find_if(list.chips, [&](const spilist::Chip& other) {
            return qfu_spiflash_id_match(other.entry, id_of(chip.entry)) == 0;
        });
        EXPECT_EQ(&*first, &chip) << "a record is hidden";
        EXPECT_TRUE(chip.entry.sector_size != 0 && chip.entry.block_size != 0) << "endless erase";
    }
    const Bytes again = spilist::encode(list);
    EXPECT_TRUE(qfu_chiplist_valid(again)) << "what was read cannot be built";
    EXPECT_EQ(spilist::decode(again).chips.size(), list.chips.size());
}

void try_list(const Bytes& bytes) {
    const spilist::ChipList list = spilist::decode(bytes);
    const std::vector<spilist::Finding> findings = spilist::check(list);
    EXPECT_EQ(qfu_chiplist_valid(bytes), !spilist::is_rejected(findings))
        << "the program and the tool do not agree";
    if (findings.empty()) {
        expect_served(list);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Bytes bytes(data, data + size);
    try_list(bytes);
    if (size >= sizeof(QFU_CHIP_LIST)) {
        // Once more with the sum made right, or no other change would ever be looked at.
        const auto end = bytes.begin() + sizeof(QFU_CHIP_LIST);
        bytes[offsetof(QFU_CHIP_LIST, reserved_5)] -= std::accumulate(
            bytes.begin(), end, std::uint8_t{0},
            [](std::uint8_t a, std::uint8_t b) { return static_cast<std::uint8_t>(a + b); });
        try_list(bytes);
    }
    return 0;
}
