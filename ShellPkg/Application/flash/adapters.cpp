#include "adapters.h"

#include "qfu/detect.h"
#include "qfu/discover.h"
#include "qfu/platform/clock.h"
#include "qfu/platform/pci.h"
#include "qfu/platform/shell.h"
#include "qfu/spi_flash.h"
#include "record.h"

namespace flash {
namespace {

/// Identifies the chip of a slot that is attached and selected.
void identify(QFU_ADAPTER& adapter, std::size_t chip_select) {
    const QFU_FLASH_SLOT& slot = adapter.slot[chip_select];
    platform::limit_pauses(IDENTIFICATION_US);
    if (chip_select == 1) {
        qfu_spiflash_identify(adapter);
    } else {
        slot.probe(adapter);
    }
    auto& adapters = static_cast<Adapters&>(*adapter.context);
    adapters.id[adapter.index][chip_select] = read_identification(adapter, slot);
}

/// Detect routine of every adapter. Unlike the ones of the supported adapters it unlocks nothing.
std::uint32_t detect(QFU_ADAPTER& adapter) {
    if (qfu_spi_attach(adapter) == 0) {
        identify(adapter, 1);
    }
    if (adapter.flash_if == QFU_FLASH_IF_BAR2 && qfu_nor_attach(adapter) == 0) {
        identify(adapter, 0);
    }
    return 0;
}

/// What two discoveries must agree on.
struct Sight {
    std::uint16_t vendor;
    std::uint16_t device;
    std::uint64_t place;
    std::array<std::uint32_t, 6> bar;
    std::array<std::uint32_t, 2> id;
    std::array<const void*, 2> chip;

    bool operator==(const Sight&) const = default;
};

using Sights = std::array<Sight, QFU_MAX_ADAPTERS>;

Sights discover(Adapters& adapters) {
    std::array<QFU_DEVICE_ENTRY, 32> table{};
    std::size_t rows = 0;
    for (const QFU_DEVICE_ENTRY& row : qfu_supported_adapters()) {
        table[rows] = row;
        table[rows++].detect = detect;
    }
    for (QFU_ADAPTER& adapter : adapters.adapters) {
        adapter = {};
    }
    adapters.id = {};
    qfu_discover(std::span(table).first(rows), adapters);
    Sights sights{};
    for (const QFU_ADAPTER& adapter : adapters.found()) {
        sights[adapter.index] = {
            adapter.vendor_id,          adapter.device_id,
            adapter.pci_address,        adapter.bar,
            adapters.id[adapter.index], {adapter.slot[0].chip, adapter.slot[1].chip}
        };
    }
    return sights;
}

Text chip_text(const Adapters& adapters, const Choice& choice) {
    const QFU_FLASH_SLOT& slot = choice.adapter->slot[choice.chip_select];
    const std::uint32_t id = adapters.id[choice.adapter->index][choice.chip_select];
    Text text("chip select @@ chip @",
              {choice.chip_select, choice.chip_select == 0 ? ": NOR" : ": SPI",
               id_text(id, Adapters::id_mask(choice))});
    if (slot.chip == nullptr) {
        text.add(", unknown");
    } else {
        text.add(" of @ bytes",
                 {Hex(Chip(*choice.adapter, choice.adapter->slot[choice.chip_select], id).size())});
    }
    return text;
}

Text adapter_text(const QFU_ADAPTER& adapter) {
    return Text("adapter @ at @",
                {adapter.index, place_text(place_of(adapter), model_of(adapter))});
}

bool matches(const Request& request, const QFU_ADAPTER& adapter) {
    return (!request.has(ADAPTER) || adapter.index == request.adapter) &&
           (!request.has(PLACE) || (adapter.bus == request.bus && adapter.dev == request.dev));
}

Outcome choose_adapter(const Request& request, Adapters& adapters, QFU_ADAPTER*& chosen) {
    std::size_t matching = 0;
    for (QFU_ADAPTER& adapter : adapters.found()) {
        if (matches(request, adapter)) {
            chosen = &adapter;
            ++matching;
        }
    }
    if (matching == 0) {
        return refused("no adapter is the one that is asked for");
    }
    if (matching > 1) {
        return refused("several adapters were found; choose one with -adid or -at");
    }
    return {};
}

Outcome choose_chip(const Request& request, const Adapters& adapters, Choice& choice) {
    const bool writes_unasked = request.has(YES);
    if (request.has(CHIP_SELECT)) {
        choice.chip_select = request.chip_select;
        return adapters.has_chip(*choice.adapter, choice.chip_select)
                   ? Outcome{}
                   : refused("no chip answers at chip select @", {request.chip_select});
    }
    if (choice.adapter->flash_if == QFU_FLASH_IF_BAR2 && writes_unasked) {
        // A chip that does not answer, or is not listed, must not turn the other one into the only.
        return refused("-y on this kind of adapter needs -csid 0 or 1");
    }
    const bool first = adapters.has_chip(*choice.adapter, 0);
    const bool second = adapters.has_chip(*choice.adapter, 1);
    if (first && second) {
        return refused("the adapter has two chips; choose one with -csid 0 or 1");
    }
    choice.chip_select = first ? 0 : 1;
    return first || second ? Outcome{} : refused("no chip answers on the adapter");
}

} // namespace

std::uint32_t Adapters::id_mask(const Choice& choice) {
    constexpr std::uint32_t ALL_BYTES = 0xFFFFFFFF;
    const auto* record =
        static_cast<const QFU_CHIP_ENTRY*>(choice.adapter->slot[choice.chip_select].chip);
    const bool listed = choice.chip_select == 1 && record != nullptr;
    return listed && record->id_len > 0 && record->id_len < sizeof ALL_BYTES
               ? ALL_BYTES >> (8 * (sizeof ALL_BYTES - record->id_len))
               : ALL_BYTES;
}

Outcome find_adapters(const Request& request, Adapters& adapters) {
    if (request.has(MODEL)) {
        adapters.flags = QFU_REQ_VENDOR | QFU_REQ_DEVICE;
        adapters.vendor_filter = request.vendor;
        adapters.device_filter = request.device;
    }
    const Sights first = discover(adapters);
    const std::uint16_t count = adapters.adapter_count;
    const bool same = discover(adapters) == first && adapters.adapter_count == count;
    if (platform::break_requested()) {
        return refused("stopped by Ctrl-C");
    }
    if (platform::refused_accesses() != platform::RefusedAccesses{}) {
        return refused("the firmware refused accesses in the search");
    }
    if (!same) {
        return refused("two searches found different adapters");
    }
    if (count == 0) {
        return refused("no supported adapter was found");
    }
    return {};
}

Outcome choose(const Request& request, Adapters& adapters, Choice& choice) {
    const bool maybe_more = adapters.adapter_count == QFU_MAX_ADAPTERS;
    Outcome outcome =
        maybe_more && !request.has(ADAPTER | PLACE)
            ? refused("the search stops at six adapters; choose one with -adid or -at")
            : choose_adapter(request, adapters, choice.adapter);
    if (!outcome) {
        outcome = choose_chip(request, adapters, choice);
    }
    if (outcome) {
        print_adapters(adapters);
    }
    return outcome;
}

void print_adapters(Adapters& adapters) {
    for (QFU_ADAPTER& adapter : adapters.found()) {
        say("@\n", {adapter_text(adapter)});
        for (std::size_t chip_select = 0; chip_select < adapter.slot.size(); ++chip_select) {
            if (adapters.has_chip(adapter, chip_select)) {
                say("  @\n", {chip_text(adapters, {&adapter, chip_select})});
            }
        }
    }
}

Text describe(const Adapters& adapters, const Choice& choice) {
    return Text("@, @", {adapter_text(*choice.adapter), chip_text(adapters, choice)});
}

void finish(Adapters& adapters) {
    for (QFU_ADAPTER& adapter : adapters.found()) {
        for (QFU_FLASH_SLOT& slot : adapter.slot) {
            if (slot.finish != nullptr) {
                adapter.current_slot = &slot;
                platform::limit_pauses(IDENTIFICATION_US);
                slot.finish(adapter);
            }
        }
    }
}

} // namespace flash
