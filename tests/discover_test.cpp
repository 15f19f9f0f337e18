// What no machine file describes: functions where nobody looks, and more adapters than are served.
#include "qfu/discover.h"

#include "lab.h"
#include "qfu/context.h"

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

} // namespace
