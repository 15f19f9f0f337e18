// The one record of a run: what was asked for and what was found.
#pragma once

#include "adapter.h"
#include "file_io.h"
#include "platform/pool.h"
#include "spi_list.h"

#include <array>
#include <cstdint>

/// Request flags.
inline constexpr std::uint32_t QFU_REQ_ADDRESS = 0x1;
inline constexpr std::uint32_t QFU_REQ_SIZE = 0x2;
inline constexpr std::uint32_t QFU_REQ_SECTOR_ERASE = 0x4;
inline constexpr std::uint32_t QFU_REQ_WIPE = 0x8;
inline constexpr std::uint32_t QFU_REQ_YES = 0x10;
inline constexpr std::uint32_t QFU_REQ_ADAPTER_ALL = 0x20;
inline constexpr std::uint32_t QFU_REQ_ADAPTER = 0x40;
inline constexpr std::uint32_t QFU_REQ_VENDOR = 0x80;
inline constexpr std::uint32_t QFU_REQ_DEVICE = 0x100;
inline constexpr std::uint32_t QFU_REQ_LIST = 0x200;
inline constexpr std::uint32_t QFU_REQ_PHYTEST = 0x400;
inline constexpr std::uint32_t QFU_REQ_HELP = 0x800;
inline constexpr std::uint32_t QFU_REQ_PHY_PORT = 0x1000;
inline constexpr std::uint32_t QFU_REQ_PHY_PORT_ALL = 0x2000;
inline constexpr std::uint32_t QFU_REQ_PHY_TIME = 0x4000;
inline constexpr std::uint32_t QFU_REQ_PHY_PATTERN = 0x8000;
inline constexpr std::uint32_t QFU_REQ_PHY_LOOPBACK = 0x10000;
inline constexpr std::uint32_t QFU_REQ_PHY_ERCTN = 0x20000;
inline constexpr std::uint32_t QFU_REQ_PHY_RATE = 0x40000;
inline constexpr std::uint32_t QFU_REQ_CHIP_SELECT = 0x80000;

/// What the open file is for.
inline constexpr std::uint32_t QFU_FILE_MODE_IMAGE = 1;  ///< read and written into the flash
inline constexpr std::uint32_t QFU_FILE_MODE_DUMP = 2;   ///< receives the flash's contents
inline constexpr std::uint32_t QFU_FILE_MODE_SCRIPT = 4; ///< receives the parameter script

/// One run. Zero-filled when it is made; owns the open file and the chip list.
struct QFU_CONTEXT {
    std::uint16_t adapter_count;
    std::uint32_t flags;   ///< QFU_REQ_*
    std::uint32_t address; ///< first byte of the flash range
    std::uint32_t size;    ///< bytes of the flash range
    std::uint16_t vendor_filter;
    std::uint16_t device_filter;
    std::uint16_t adapter_id;  ///< 0 with "ALL"
    std::uint16_t chip_select; ///< slot 0 or 1
    std::uint16_t phy_port;
    std::uint16_t phy_pattern;
    std::uint16_t phy_time; ///< seconds
    std::uint16_t phy_rate; ///< link rate index
    std::uint32_t argc;
    const char* const* argv; ///< the argument vector of the run; an absent argument is null
    std::uint32_t file_mode; ///< QFU_FILE_MODE_*, 0 without a file
    std::uint32_t file_size; ///< bytes of the image
    QFU_FILE file;
    platform::Pool<std::uint8_t> chip_list_file; ///< the whole chip list file
    const QFU_CHIP_LIST* chip_list;              ///< in `chip_list_file`; null without a valid list
    std::array<QFU_ADAPTER, QFU_MAX_ADAPTERS> adapters;

    bool has(std::uint32_t flag) const { return (flags & flag) != 0; }
};
