#include "discover.h"

#include "context.h"
#include "detect.h"
#include "lab.h"

#include <gtest/gtest.h>

namespace {

using lab::Lab;

/// Discovery by itself, over the whole table.
struct Discovery {
    std::vector<std::uint16_t> found() {
        lab.attach();
        qfu_discover(qfu_supported_adapters(), context);
        std::vector<std::uint16_t> devices;
        for (std::size_t i = 0; i < context.adapter_count; ++i) {
            devices.push_back(context.adapters[i].device_id);
        }
        lab.printed();
        return devices;
    }

    Lab lab;
    QFU_CONTEXT context{};
};

using Devices = std::vector<std::uint16_t>;

TEST(Table, HasTheRowsOfEveryFamily) {
    const auto table = qfu_supported_adapters();
    ASSERT_EQ(table.size(), 23U);
    // Read against the emulator's own list of models.
    for (std::size_t i = 0; i < table.size(); ++i) {
        const QFU_DEVICE_ENTRY& row = table[i];
        EXPECT_EQ(row.device_id, 0xC701 + i) << "adapters are numbered in this order";
        const auto* model = emulator::find_adapter_model(row.vendor_id, row.device_id);
        ASSERT_NE(model, nullptr);
        EXPECT_EQ(row.generation, model->generation);
        EXPECT_EQ(row.port_count, model->ports);
        const std::uint8_t kind = model->interface == emulator::Interface::kIndexed ? 1
                                  : model->interface == emulator::Interface::kBar2  ? 2
                                                                                    : 4;
        EXPECT_EQ(row.flash_if, kind);
        EXPECT_EQ(row.detect, kind == 2 ? qfu_nor_detect : qfu_spi_detect);
    }
}

TEST(Discovery, GoesByRowsThenByBusAndDevice) {
    Discovery d;
    d.lab.adapter_at({0, 1, 0}, 0xC70F);
    d.lab.adapter_at({5, 3, 0}, 0xC709);
    d.lab.adapter_at({5, 2, 0}, 0xC709);
    d.lab.adapter_at({63, 15, 0}, 0xC702, 0x1F7E);
    EXPECT_EQ(d.found(), (Devices{0xC702, 0xC709, 0xC709, 0xC70F}));
    EXPECT_EQ(d.context.adapters[0].bus, 63);
    EXPECT_EQ(d.context.adapters[0].dev, 15);
    EXPECT_EQ(d.context.adapters[1].dev, 2);
    EXPECT_EQ(d.context.adapters[2].dev, 3);
    EXPECT_EQ(d.context.adapters[3].index, 3);
}

TEST(Discovery, LooksAtFunction0OfSixteenDevicesOnSixtyFourBusesAndAtBothIds) {
    Discovery d;
    d.lab.adapter_at({64, 0, 0}, 0xC709);
    d.lab.adapter_at({0, 16, 0}, 0xC709);
    d.lab.adapter_at({0, 2, 1}, 0xC709);
    const emulator::AdapterModel foreign{0x1F7E, 0xC709, emulator::Interface::kIndexed, 3, 2};
    d.lab.machine().add(foreign, {0, 3, 0}, 0x11);
    EXPECT_EQ(d.found(), Devices{});
}

TEST(Discovery, HonoursTheFilters) {
    Discovery d;
    d.lab.adapter_at({0, 1, 0}, 0xC709);
    d.lab.adapter_at({0, 2, 0}, 0xC70A);
    d.lab.adapter_at({0, 3, 0}, 0xC702, 0x1F7E);
    d.context.vendor_filter = 0x1F7E;
    d.context.device_filter = 0xC709;
    d.context.flags = QFU_REQ_VENDOR;
    EXPECT_EQ(d.found(), Devices{0xC702});
    d.context.flags = QFU_REQ_DEVICE;
    EXPECT_EQ(d.found(), Devices{0xC709});
    d.context.flags = QFU_REQ_VENDOR | QFU_REQ_DEVICE;
    EXPECT_EQ(d.found(), Devices{});
}

TEST(Discovery, StopsAtSixAdapters) {
    Discovery d;
    for (std::uint8_t device = 0; device < 7; ++device) {
        d.lab.adapter_at({0, device, 0}, 0xC709);
    }
    d.lab.adapter_at({0, 9, 0}, 0xC717);
    EXPECT_EQ(d.found(), Devices(6, 0xC709));
    // The rows before 0xC709 probe everything, its own row six devices, the ones behind it nothing.
    EXPECT_EQ(d.lab.faults().config_read.calls(), 8U * 1024 * 2 + 6 * 2 + 6 * 15);
}

TEST(Discovery, RecordsConfigurationSpace) {
    Discovery d;
    d.lab.adapter_at({2, 4, 0}, 0xC703, 0x1E5D, 0xA2);
    ASSERT_EQ(d.found().size(), 1U);
    const QFU_ADAPTER& adapter = d.context.adapters[0];
    EXPECT_EQ(adapter.context, &d.context);
    EXPECT_EQ(adapter.vendor_id, 0x1E5D);
    EXPECT_EQ(adapter.subsystem_id, 0xC703);
    EXPECT_EQ(adapter.subsystem_vendor_id, 0x1E5D);
    EXPECT_EQ(adapter.class_rev, 0x010400A2U);
    EXPECT_EQ(adapter.pci_address, 0x02040000U);
    EXPECT_EQ(adapter.bar, (std::array<std::uint32_t, 6>{0xC0000000, 0, 0xC0020000, 0, 0, 0}));
    EXPECT_EQ(adapter.reg_base, 0xC0020000U);
    EXPECT_EQ(adapter.aux_base, 0xC0000000U);
}

TEST(Discovery, TakesFailedReadsForNoDevice) {
    Discovery d;
    d.lab.adapter(0xC709);
    d.lab.faults().config_read.fail(1, 0);
    EXPECT_EQ(d.found(), Devices{});
    d.lab.attach();
    std::uint64_t function = 2 << 16;
    EXPECT_EQ(qfu_pci_read16(platform::root_bridge(), function), 0x5A5A);
}

TEST(Discovery, KeepsGoingWhenOnlyClassAndRevisionCannotBeRead) {
    Discovery d;
    d.lab.adapter_at({0, 0, 0}, 0xC701, 0x1F7E);
    // Vendor, device, twelve halves of BARs, subsystem: the 16th read is the class code.
    d.lab.faults().config_read.fail(16);
    EXPECT_EQ(d.found(), Devices{0xC701});
    EXPECT_EQ(d.context.adapters[0].class_rev, 0x5A5A5A5AU);
}

TEST(Discovery, KeepsWhatItFoundBeforeABreak) {
    Discovery d;
    d.lab.adapter_at({0, 1, 0}, 0xC701, 0x1F7E);
    d.lab.adapter_at({0, 3, 0}, 0xC701, 0x1F7E);
    d.lab.faults().break_query.fail(3);
    EXPECT_EQ(d.found(), Devices{0xC701});
    EXPECT_EQ(d.lab.faults().break_query.calls(), 3U)
        << "a break is remembered, not asked for again";
}

TEST(Discovery, NeedsARootBridge) {
    Lab lab;
    lab.kind(1);
    lab.firmware().hide_root_bridge();
    EXPECT_EQ(lab.run("-l").text(), "\nNo Found any Adapter.\n");
    QFU_CONTEXT context{};
    EXPECT_EQ(qfu_scan_pci(qfu_supported_adapters()[0], context), EFI_UNSUPPORTED);
}

TEST(Discovery, ARowWithoutDetectRoutineStillGivesAnAdapter) {
    Discovery d;
    d.lab.adapter(0xC709);
    d.lab.attach();
    const QFU_DEVICE_ENTRY row{0x1E5D, 0xC709, QFU_FLASH_IF_INDEXED, 3, 2, nullptr};
    qfu_discover({&row, 1}, d.context);
    ASSERT_EQ(d.context.adapter_count, 1);
    EXPECT_EQ(d.context.adapters[0].current_slot, nullptr);
    EXPECT_EQ(d.context.adapters[0].slot[1].probe, nullptr);
}

} // namespace
