#include "qfu/flash_cmd.h"

#include "lab.h"

#include <gtest/gtest.h>

namespace {

using lab::Bytes;
using lab::Lab;

const std::string kBlankOnConsole = "\r\n\r" + std::string(56, ' ');

/// A slot of routines that only count, behind an adapter of no interface.
struct CountingSlot {
    CountingSlot() {
        lab.attach();
        finished = 0;
        adapter.context = &context;
        adapter.current_slot = &slot;
        slot.chip_type = QFU_CHIP_SPI;
        slot.chip = &entry;
        entry.whole_size = 0x1000;
        slot.finish = [](QFU_ADAPTER&) { return ++finished; };
        context.flags = QFU_REQ_YES;
    }
    ~CountingSlot() { lab.attach(); }

    std::string run(std::uint32_t flags) {
        context.flags = QFU_REQ_YES | flags;
        status = process_file_fun(adapter);
        return lab.printed();
    }

    inline static std::uint32_t finished = 0;
    Lab lab;
    QFU_CONTEXT context{};
    QFU_ADAPTER adapter{};
    QFU_FLASH_SLOT slot{};
    QFU_CHIP_ENTRY entry{};
    EFI_STATUS status = EFI_SUCCESS;
};

TEST(Finish, IsCalledOnceOnEveryPathWithASlot) {
    CountingSlot c;
    EXPECT_EQ(c.run(QFU_REQ_WIPE), "Wipe whole SPI-Flash Chip...Fail!\r\n") << "no such operation";
    c.run(0);
    c.run(QFU_REQ_SECTOR_ERASE | QFU_REQ_ADDRESS);
    EXPECT_EQ(c.status, EFI_INVALID_PARAMETER);
    c.slot.chip = nullptr;
    EXPECT_EQ(c.run(QFU_REQ_WIPE), "No support dev inteface...\r\n");
    EXPECT_EQ(c.status, EFI_NO_MEDIA);
    EXPECT_EQ(CountingSlot::finished, 4U);
    c.adapter.current_slot = nullptr;
    c.run(QFU_REQ_WIPE);
    EXPECT_EQ(CountingSlot::finished, 4U);
}

TEST(AbsentOperations, AreReportedOrLeftOut) {
    CountingSlot c;
    c.lab.write_file("image.bin", "abc");
    c.context.file = qfu_fopen("image.bin", "r");
    c.context.file_mode = QFU_FILE_MODE_IMAGE;
    c.context.file_size = 3;
    EXPECT_EQ(c.run(QFU_REQ_ADDRESS),
              kBlankOnConsole + "\r\nNo found any SPI Flash dev...1438\r\n" + kBlankOnConsole +
                  "\rWrite address 00000000\r\n\r\nWrite file is successful!!\r\n");
    c.entry.whole_size = 0;
    EXPECT_EQ(c.run(QFU_REQ_ADDRESS),
              "No Flash device!!\r\nAddress(0x0) + File Size(0x3) > Flash Size(0x0)\r\n");
    EXPECT_EQ(c.status, EFI_NO_MEDIA);
    c.slot.chip = nullptr;
    Bytes block(4);
    EXPECT_EQ(qfu_write_block(c.adapter, 0, block), -1);
    EXPECT_EQ(qfu_read_block(c.adapter, 0, block), -1);
    EXPECT_EQ(c.lab.printed(), "\r\nNo found any SPI Flash dev...1512\r\n"
                               "\r\nNo found any SPI Flash dev...1551\r\n");
    c.adapter.current_slot = nullptr;
    EXPECT_EQ(qfu_write_block(c.adapter, 0, block), -1);
    EXPECT_EQ(qfu_read_block(c.adapter, 0, block), -1);
    EXPECT_EQ(c.lab.printed(), "");
}

TEST(Verify, AReadThatFailsPassesTheBlock) {
    CountingSlot c;
    c.slot.read = [](QFU_ADAPTER&, std::uint32_t, std::uint8_t*, std::uint32_t) {
        return QFU_FAILED;
    };
    EXPECT_EQ(qfu_write_block(c.adapter, 0, Bytes(40)), 0);
    EXPECT_EQ(c.lab.printed(), "read data fail....");
}

/// Accesses that a block of 4 KiB takes: to program and verify it, and to dump it.
struct Costs {
    std::uint16_t device;
    std::uint32_t nor_id;
    std::uint64_t written;
    std::uint64_t dumped;
};
constexpr std::uint32_t kWords = 4096 / 2;
constexpr std::uint32_t kNorDump = 4096 / 32 * 5 + kWords * 2; // each piece has a start
// Window; unlock bypass; each word two cycles, a command and its end; bypass reset.
constexpr std::uint32_t kNorProgram = 1 + (6 + 1 + 3) + kWords * (4 + 1 + 3) + (4 + 1 + 3);

TEST(Cost, NoAccessIsMadeBeyondTheOnesThatAByteNeeds) {
    for (const auto& [device, nor_id, written, dumped] : {
             Costs{0xC709, 0,          26 * 4096,              2 * 4096},
             Costs{0xC705, 0,          13 * 4096,              4096    },
             Costs{0xC703, 0x257E00EC, kNorProgram + kNorDump, kNorDump}
    }) {
        lab::Bench b(device, "W25X40", nor_id);
        QFU_ADAPTER& adapter = b.discover();
        const Bytes block = lab::pattern(4096);
        const std::uint64_t start = b.lab.machine().accesses();
        EXPECT_EQ(qfu_write_block(adapter, 0, block), 0);
        EXPECT_EQ(b.lab.machine().accesses() - start, written);
        Bytes read(4096);
        EXPECT_EQ(qfu_read_block(adapter, 0, read), 0);
        EXPECT_EQ(b.lab.machine().accesses() - start, written + dumped);
        EXPECT_EQ(read, block);
    }
}

} // namespace
