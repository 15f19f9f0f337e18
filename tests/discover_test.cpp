// What no machine file describes: functions where nobody looks, and more adapters than are served.
#include "qfu/discover.h"

#include "lab.h"
#include "qfu/context.h"
#include "qfu/detect.h"

#include <gtest/gtest.h>

namespace {

/// Discovery by itself.
struct Discovery {
    std::size_t found() {
        lab.attach();
        qfu_discover(qfu_supported_adapters(), context);
        lab.printed();
        return context.adapter_count;
    }

    lab::Lab lab;
    QFU_CONTEXT context{};
};

TEST(Discovery, LooksAtFunction0OfSixteenDevicesOnSixtyFourBusesAndAtBothIds) {
    Discovery d;
    d.lab.adapter(0xC709, {64, 0, 0});
    d.lab.adapter(0xC709, {0, 16, 0});
    d.lab.adapter(0xC709, {0, 2, 1});
    const emulator::AdapterModel foreign{0x1F7E, 0xC709, emulator::Interface::kIndexed, 3, 2};
    d.lab.machine().add(foreign, {0, 3, 0}, 0x11);
    EXPECT_EQ(d.found(), 0U);
}

TEST(Discovery, StopsAtSixAdapters) {
    Discovery d;
    for (std::uint8_t device = 0; device < 7; ++device) {
        d.lab.adapter(0xC709, {0, device, 0});
    }
    d.lab.adapter(0xC717, {0, 9, 0});
    EXPECT_EQ(d.found(), 6U);
    // The rows before 0xC709 probe everything, its own row six devices, the rows after it nothing.
    EXPECT_EQ(d.lab.faults().config_read.calls(), 8U * 1024 * 2 + 6 * 2 + 6 * 15);
}

TEST(SupportedAdapters, AreReachedLikeTheirModels) {
    EXPECT_EQ(qfu_supported_adapters().size(), emulator::adapter_models().size());
    for (const QFU_DEVICE_ENTRY& row : qfu_supported_adapters()) {
        const auto* model = emulator::find_adapter_model(row.vendor_id, row.device_id);
        ASSERT_NE(model, nullptr) << row.device_id;
        EXPECT_EQ(model->generation, row.generation) << row.device_id;
        EXPECT_EQ(model->ports, row.port_count) << row.device_id;
        const bool has_nor = model->interface == emulator::Interface::kBar2;
        const bool indexed = model->interface == emulator::Interface::kIndexed;
        EXPECT_EQ(row.flash_if, has_nor   ? QFU_FLASH_IF_BAR2
                                : indexed ? QFU_FLASH_IF_INDEXED
                                          : QFU_FLASH_IF_BAR0);
        EXPECT_EQ(row.detect, has_nor ? qfu_nor_detect : qfu_spi_detect) << row.device_id;
    }
}

} // namespace
