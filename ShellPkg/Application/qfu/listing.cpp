#include "listing.h"

#include "console.h"

void qfu_list_adapters(std::span<QFU_ADAPTER> adapters) {
    bool any_chip = false;
    for (QFU_ADAPTER& adapter : adapters) {
        qfu_print("%02d. VenId=%x, DevId=%x, ClassCode=%lx, %d ports ", adapter.index,
                  adapter.vendor_id, adapter.device_id, adapter.class_rev, adapter.port_count);
        qfu_print("[Bus=%X, Dev=%X, Fun=%x]\n", adapter.bus, adapter.dev, adapter.func);
        for (std::size_t s = 0; s < adapter.slot.size(); ++s) {
            QFU_FLASH_SLOT& slot = adapter.slot[s];
            if (slot.chip == nullptr || slot.show_info == nullptr) {
                continue;
            }
            adapter.current_slot = &slot;
            qfu_print("    cs%d:", s);
            slot.show_info(adapter);
            any_chip = true;
        }
    }
    if (!any_chip) {
        qfu_print("No detected any Flash Chip,\n");
    }
}
