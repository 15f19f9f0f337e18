#include "flash_slot.h"

#include "context.h"
#include "lab.h"

#include <gtest/gtest.h>

namespace {

using lab::Lab;
using lab::Probed;

TEST(IndexedAccess, NamesTheSpiSpaceExceptOnGeneration2) {
    for (const auto& [device, index] :
         {std::pair(0xC709, "06000004"), std::pair(0xC717, "06000004"),
          std::pair(0xC70F, "00000004")}) {
        Probed f(static_cast<std::uint16_t>(device), "W25X40");
        QFU_ADAPTER& adapter = f.discover();
        f.lab.registers();
        EXPECT_EQ(adapter.reg_base, adapter.bar[5]);
        qfu_spireg_write_indexed(adapter, 4, 0x123456);
        EXPECT_EQ(qfu_spireg_read_indexed(adapter, 4), 0x123456U);
        EXPECT_EQ(f.lab.registers(), std::string("0  BAR5+000A8 < ") + index +
                                         "\n0  BAR5+000AC < 00123456\n0  BAR5+000A8 < " + index +
                                         "\n0  BAR5+000AC > 00123456\n");
    }
}

TEST(WindowAccess, ReachesTheRegisterDirectly) {
    {
        Probed f(4);
        QFU_ADAPTER& adapter = f.discover();
        f.lab.registers();
        qfu_spireg_write_bar0(adapter, 4, 1);
        EXPECT_EQ(qfu_spireg_read_bar0(adapter, 4), 1U);
        EXPECT_EQ(f.lab.registers(), "0  BAR0+1C804 < 00000001\n0  BAR0+1C804 > 00000001\n");
        EXPECT_EQ(adapter.aux_base, 0U);
    }
    Probed f(2);
    QFU_ADAPTER& adapter = f.discover();
    f.lab.registers();
    qfu_spireg_write_bar2(adapter, 4, 1);
    EXPECT_EQ(qfu_spireg_read_bar2(adapter, 4), 1U);
    EXPECT_EQ(f.lab.registers(), "0  BAR2+0C804 < 00000001\n0  BAR2+0C804 > 00000001\n");
}

TEST(MemoryAccess, AFailedReadGivesThePattern) {
    Probed f(1);
    QFU_ADAPTER& adapter = f.discover();
    f.lab.registers();
    f.lab.faults().memory_read.fail(f.lab.faults().memory_read.calls() + 1);
    EXPECT_EQ(qfu_mem_read32(adapter.root_bridge, adapter.reg_base + 0xAC), 0x5A5A5A5AU);
    EXPECT_EQ(qfu_mem_read32(adapter.root_bridge, 0x1000), 0x5A5A5A5AU);
    EXPECT_NE(qfu_mem_write32(adapter.root_bridge, 0x1000, 0), EFI_SUCCESS);
}

TEST(Selection, FollowsCsidThenDetectionThenTheInterface) {
    Probed f(2);
    QFU_ADAPTER& adapter = f.discover();
    f.lab.registers();
    EXPECT_EQ(adapter.current_slot, nullptr) << "no NOR chip, whatever slot 1 holds";
    EXPECT_EQ(qfu_current_slot(adapter), adapter.slot.data());
    EXPECT_EQ(qfu_flash_size(adapter), 0U);
    f.context.flags = QFU_REQ_CHIP_SELECT;
    f.context.chip_select = 1;
    EXPECT_EQ(qfu_current_slot(adapter), &adapter.slot[1]);
    EXPECT_EQ(qfu_flash_size(adapter), 0x80000U);
    EXPECT_EQ(qfu_current_slot(adapter), &adapter.slot[1]);
}

TEST(Selection, OfTheEmptySlotReportsNoDevice) {
    Lab lab;
    lab.kind(1);
    EXPECT_EQ(lab.run("-wpa -y -csid 0").text(), "No support dev inteface...\n");
    Lab spi_and_no_nor;
    auto& chip = spi_and_no_nor.kind(2);
    chip.contents()[5] = 0;
    EXPECT_TRUE(spi_and_no_nor.run("-wpa -y").text().ends_with("No support dev inteface...\n"));
    EXPECT_TRUE(spi_and_no_nor.run("-wpa -y -csid 1").text().ends_with("Ok!\n"));
    EXPECT_EQ(chip.contents()[5], 0xFF);
}

} // namespace
