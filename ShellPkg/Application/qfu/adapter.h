// The record of one adapter.
#pragma once

#include "flash_slot.h"

#include <array>
#include <cstddef>
#include <cstdint>

struct QFU_CONTEXT;

/// A detect routine: fills the slots of a new adapter.
using QFU_DETECT = std::uint32_t (*)(QFU_ADAPTER&);

/// One adapter found on PCI. Lives in the context, for the whole run.
struct QFU_ADAPTER {
    QFU_CONTEXT* context;
    platform::RootBridge* root_bridge;
    std::uint16_t vendor_id;
    std::uint16_t device_id;
    std::uint16_t subsystem_id;
    std::uint16_t subsystem_vendor_id;
    std::uint16_t bus;
    std::uint16_t dev;
    std::uint16_t func; ///< always 0
    std::uint8_t flash_if;
    std::uint8_t generation;
    std::uint8_t port_count;
    std::uint8_t index;               ///< position in the adapter list
    std::uint32_t class_rev;          ///< revision in bits 0 to 7, class code in bits 8 to 31
    std::uint64_t pci_address;        ///< bus in bits 24 to 31, device in bits 16 to 23
    std::array<std::uint32_t, 6> bar; ///< low four bits cleared
    std::uint32_t reg_base; ///< base of the flash controller's registers; set by detection
    std::uint32_t aux_base; ///< base of the NOR window; set by detection
    QFU_DETECT detect;
    QFU_FLASH_SLOT* current_slot; ///< the selected slot; null when detection found no chip
    std::array<QFU_FLASH_SLOT, 2> slot;
};

/// Adapters that one run serves at most.
inline constexpr std::size_t QFU_MAX_ADAPTERS = 6;
