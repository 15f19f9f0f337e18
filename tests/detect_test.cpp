#include "detect.h"

#include "context.h"
#include "lab.h"
#include "spi_flash.h"

#include <gtest/gtest.h>

namespace {

using lab::Lab;

TEST(Detection, AnInterfaceThatNothingServesHasNoOperations) {
    Lab lab;
    lab.attach();
    for (const auto detect : {qfu_spi_detect, qfu_nor_detect}) {
        QFU_CONTEXT context{};
        QFU_ADAPTER adapter{};
        adapter.context = &context;
        adapter.flash_if = 3;
        adapter.reg_base = 1;
        for (QFU_FLASH_SLOT& slot : adapter.slot) {
            qfu_spiflash_install(slot);
        }
        EXPECT_EQ(detect(adapter), QFU_FAILED);
        EXPECT_EQ(adapter.reg_base, 0U);
        EXPECT_EQ(adapter.slot[detect == qfu_nor_detect ? 0 : 1].probe, nullptr);
    }
    EXPECT_EQ(lab.printed(), "");
}

} // namespace
