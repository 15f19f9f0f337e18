#include "uefi_nor.h"

#include "adapter.h"
#include "bounds.h"
#include "console.h"
#include "platform/clock.h"
#include "platform/shell.h"

#include <cstddef>

namespace {

constexpr char SOURCE_FILE[] = "ShellPkg/Application/qfu/uefi_nor.cpp";

/// Registers of the NOR controller, at `reg_base` plus these.
constexpr std::uint32_t WINDOW_CONTROL = 0x8420;
constexpr std::uint32_t WINDOW_HIGH = 0x8424;
constexpr std::uint32_t WINDOW_BASE = 0x8428;  ///< page in bits 12 to 31; bit 0 opens the window
constexpr std::uint32_t FIRST_CYCLES = 0xC910; ///< cycles 1 to 3: three addresses, then three data
constexpr std::uint32_t LAST_CYCLES = 0xC928;  ///< cycles 4 to 6, in the same way
constexpr std::uint32_t SEQUENCE_CONTROL = 0xC940;
constexpr std::uint32_t SEQUENCE_STATUS = 0xC944;
constexpr std::uint32_t INTERFACE_CONTROL = 0xC950;
constexpr std::uint32_t CHIP_READY = 0xC954;
constexpr std::uint32_t ADAPTER_MODE = 0x10100;

constexpr std::uint32_t WINDOW_FOR_READING = 0x1000; ///< also half the window's size in bytes
constexpr std::uint32_t WINDOW_FOR_COMMANDS = 0x3001;
constexpr std::uint32_t WINDOW_OPEN = 0x1;
constexpr std::uint32_t WINDOW_START = 0xFC000000 | WINDOW_OPEN;
constexpr std::uint32_t WINDOW_PAGE_BITS = 0xFFFFF000;

constexpr std::uint32_t SEQUENCE_ENDED = 0x1;
constexpr std::uint32_t CHIP_IS_READY = 0x20000;
constexpr std::uint32_t NO_ANSWER = 0xFFFFFFFF; ///< what a register reads whose adapter is gone
constexpr std::uint32_t ACKNOWLEDGE = 0xFFFFFFFF;

constexpr std::uint32_t INTERFACE_ON = 0x3;
constexpr std::uint32_t INTERFACE_RESET = 0x10;
constexpr std::uint32_t MODE_NOR_OFF = 0x80;

constexpr std::size_t POLL_US = 10;
constexpr std::size_t RESET_PULSE_US = 10;

/// Tries, 10 us apart, before a sequence counts as stuck.
constexpr std::uint32_t POLLS = 5'000'000;
constexpr std::uint32_t POLLS_IDENTIFICATION = 300'000;
constexpr std::uint32_t POLLS_SECTOR_ERASE = 300'000;

/// One write on the chip's 16-bit bus; `address` counts words.
struct BusCycle {
    std::uint32_t address;
    std::uint32_t data;
};

constexpr BusCycle UNLOCK_1{0x555, 0xAA};
constexpr BusCycle UNLOCK_2{0x2AA, 0x55};

constexpr BusCycle RESET[] = {
    {0, 0xF0},
};
constexpr BusCycle IDENTIFICATION[] = {
    UNLOCK_1,
    UNLOCK_2,
    {0x555, 0x90},
};
constexpr BusCycle CHIP_ERASE[] = {
    UNLOCK_1, UNLOCK_2, {0x555, 0x80},
      UNLOCK_1, UNLOCK_2, {0x555, 0x10},
};
constexpr BusCycle UNLOCK_BYPASS[] = {
    UNLOCK_1,
    UNLOCK_2,
    {0x555, 0x20},
};
constexpr BusCycle BYPASS_RESET[] = {
    {0, 0x90},
    {0, 0x00},
};

constexpr std::uint32_t ID_BOOT_BLOCKS_AT_BOTH_ENDS = 0x257E00EC;
constexpr QFU_NOR_CHIP CHIPS[] = {
    {0x227E0001,                  0x800000},
    {0x22C900C2,                  0x800000},
    {0x22CB00C2,                  0x800000},
    {0x22ED0020,                  0x800000},
    {0x22FD0020,                  0x800000},
    {ID_BOOT_BLOCKS_AT_BOTH_ENDS, 0x400000},
};

constexpr std::uint32_t BOOT_BLOCK_SIZE = 0x2000;
constexpr std::uint32_t BLOCK_SIZE = 0x10000;
constexpr std::uint32_t BOOT_BLOCKS = 8;
constexpr std::uint32_t TOP_BOOT_BLOCKS = 0x3F0000;
constexpr std::uint32_t TOP_BOOT_BLOCKS_END = 0x400000;
constexpr std::uint32_t FIRST_TOP_BOOT_BLOCK = 112;

bool in_boot_block(std::uint32_t id_value, std::uint32_t address) {
    return address < BOOT_BLOCKS * BOOT_BLOCK_SIZE ||
           (id_value == ID_BOOT_BLOCKS_AT_BOTH_ENDS && address >= TOP_BOOT_BLOCKS &&
            address < TOP_BOOT_BLOCKS_END);
}

const QFU_NOR_CHIP& chip(const QFU_ADAPTER& adapter) {
    return *static_cast<const QFU_NOR_CHIP*>(adapter.current_slot->chip);
}

std::uint32_t read_register(QFU_ADAPTER& adapter, std::uint32_t reg) {
    return qfu_mem_read32(adapter.root_bridge, adapter.reg_base + reg);
}

void write_register(QFU_ADAPTER& adapter, std::uint32_t reg, std::uint32_t value) {
    qfu_mem_write32(adapter.root_bridge, adapter.reg_base + reg, value);
}

/// Loads the registers of one bus cycle; `number` counts from 0.
void load_cycle(QFU_ADAPTER& adapter, std::size_t number, BusCycle cycle) {
    constexpr std::uint32_t DATA = 12; // behind the three addresses
    const auto place = static_cast<std::uint32_t>(number % 3 * 4);
    const std::uint32_t reg = (number < 3 ? FIRST_CYCLES : LAST_CYCLES) + place;
    write_register(adapter, reg, cycle.address);
    write_register(adapter, reg + DATA, cycle.data);
}

void load_cycles(QFU_ADAPTER& adapter, std::span<const BusCycle> cycles) {
    for (std::size_t i = 0; i < cycles.size(); ++i) {
        load_cycle(adapter, i, cycles[i]);
    }
}

/// Word that starts a sequence of `cycles` bus cycles.
constexpr std::uint32_t sequence_command(std::size_t cycles) {
    return static_cast<std::uint32_t>(cycles) << 24 | 0x010000;
}
static_assert(sequence_command(6) == 0x06010000);

std::uint32_t run(QFU_ADAPTER& adapter, std::span<const BusCycle> cycles, std::uint32_t polls) {
    load_cycles(adapter, cycles);
    write_register(adapter, SEQUENCE_CONTROL, sequence_command(cycles.size()));
    return qfu_norflash_wait_done(adapter, polls);
}

void open_window_for_commands(QFU_ADAPTER& adapter) {
    write_register(adapter, WINDOW_CONTROL, WINDOW_FOR_COMMANDS);
}

void open_window_for_reading(QFU_ADAPTER& adapter) {
    write_register(adapter, WINDOW_CONTROL, WINDOW_FOR_READING);
    write_register(adapter, WINDOW_HIGH, 0);
    write_register(adapter, WINDOW_BASE, WINDOW_START);
}

void report_stuck(std::uint32_t number, const char* routine) {
    qfu_print("%s %d %s...\n", SOURCE_FILE, number, routine);
}

/// True when the selected slot has a chip. Prints when there is no slot at all.
bool has_chip(const QFU_ADAPTER& adapter) {
    if (adapter.current_slot == nullptr) {
        qfu_print("No supported NOR Flash interface.\n");
        return false;
    }
    return adapter.current_slot->chip != nullptr;
}

std::uint32_t probe(QFU_ADAPTER& adapter) {
    write_register(adapter, ADAPTER_MODE, read_register(adapter, ADAPTER_MODE) & ~MODE_NOR_OFF);
    write_register(adapter, WINDOW_BASE, WINDOW_START);
    read_register(adapter, WINDOW_BASE);
    open_window_for_commands(adapter);
    open_window_for_reading(adapter);
    const std::uint32_t control = read_register(adapter, INTERFACE_CONTROL) | INTERFACE_ON;
    write_register(adapter, INTERFACE_CONTROL, control | INTERFACE_RESET);
    platform::stall(RESET_PULSE_US);
    write_register(adapter, INTERFACE_CONTROL, control);
    return qfu_norflash_identify(adapter);
}

std::uint32_t finish(QFU_ADAPTER& adapter) {
    if (!has_chip(adapter)) {
        return adapter.current_slot == nullptr ? QFU_FAILED : 0;
    }
    open_window_for_commands(adapter);
    qfu_samsung_reset(adapter);
    write_register(adapter, ADAPTER_MODE, read_register(adapter, ADAPTER_MODE) | MODE_NOR_OFF);
    return 0;
}

std::uint32_t erase_sector(QFU_ADAPTER& adapter, std::uint32_t address) {
    if (!has_chip(adapter)) {
        return QFU_FAILED;
    }
    open_window_for_commands(adapter);
    return qfu_norflash_sector_erase(adapter, address);
}

std::uint32_t erase_chip(QFU_ADAPTER& adapter) {
    if (!has_chip(adapter)) {
        return QFU_FAILED;
    }
    open_window_for_commands(adapter);
    return qfu_norflash_chip_erase(adapter);
}

std::uint32_t read(QFU_ADAPTER& adapter, std::uint32_t address, std::uint8_t* buffer,
                   std::uint32_t count) {
    return has_chip(adapter) ? qfu_norflash_read_words(adapter, address, buffer, count)
                             : QFU_FAILED;
}

std::uint32_t erase_range(QFU_ADAPTER& adapter, std::uint32_t address, std::uint32_t count) {
    if (!has_chip(adapter) || adapter.current_slot->erase_sector == nullptr) {
        return QFU_FAILED;
    }
    qfu_samsung_reset(adapter);
    const QFU_NOR_CHIP& nor = chip(adapter);
    const std::uint64_t end =
        qfu_smaller(std::uint64_t{address} + count, std::uint64_t{nor.whole_size});
    for (std::uint64_t at = address; at < end;) {
        if (platform::break_requested()) {
            return 0;
        }
        const auto start = static_cast<std::uint32_t>(at);
        if (adapter.current_slot->erase_sector(adapter, start) != 0) {
            return QFU_FAILED;
        }
        qfu_print("\r                                                        ");
        qfu_print("\rErase block %lx", qfu_norflash_block_number(nor.id_value, start));
        // Wide enough for the end of the address space.
        const QFU_ERASE_UNIT block = qfu_norflash_block(nor.id_value, start);
        at = std::uint64_t{block.first} + block.size;
    }
    return 0;
}

std::uint32_t write(QFU_ADAPTER& adapter, std::uint32_t address, const std::uint8_t* data,
                    std::uint32_t count) {
    if (!has_chip(adapter)) {
        return QFU_FAILED;
    }
    const std::uint32_t size = chip(adapter).whole_size;
    const std::uint32_t room = size - qfu_smaller(address, size);
    open_window_for_commands(adapter);
    return qfu_norflash_program(adapter, address, {data, qfu_smaller(count, room)});
}

void show_info(QFU_ADAPTER& adapter) {
    if (adapter.current_slot == nullptr) {
        qfu_print("No supported NOR Flash interface.\n");
        return;
    }
    if (adapter.current_slot->chip == nullptr) {
        qfu_print("No detected any SPI Flash chip.\n");
        return;
    }
    qfu_print("NOR FLASH Chip Whole Size=%lX, ", chip(adapter).whole_size);
    qfu_print("ID[%08lX].", chip(adapter).id_value);
    qfu_print("\n");
}

} // namespace

std::uint32_t qfu_norflash_wait_done(QFU_ADAPTER& adapter, std::uint32_t polls) {
    const auto reads = [&](std::uint32_t reg, std::uint32_t bit) {
        const std::uint32_t value = read_register(adapter, reg);
        return (value & bit) != 0 && value != NO_ANSWER;
    };
    std::uint32_t result = QFU_FAILED;
    for (std::uint64_t tries = 0; tries <= polls; ++tries) {
        if (platform::break_requested() ||
            (reads(SEQUENCE_STATUS, SEQUENCE_ENDED) && reads(CHIP_READY, CHIP_IS_READY))) {
            result = 0;
            break;
        }
        if (platform::pauses_spent()) {
            break;
        }
        platform::stall(POLL_US);
    }
    platform::stall(POLL_US);
    write_register(adapter, SEQUENCE_STATUS, ACKNOWLEDGE);
    return result;
}

void qfu_samsung_reset(QFU_ADAPTER& adapter) {
    if (run(adapter, RESET, POLLS) != 0) {
        report_stuck(255, "qfu_samsung_reset");
    }
}

std::uint32_t qfu_norflash_read_id(QFU_ADAPTER& adapter, std::uint32_t& id) {
    qfu_samsung_reset(adapter);
    load_cycles(adapter, IDENTIFICATION);
    for (std::size_t unused = 3; unused < 6; ++unused) {
        load_cycle(adapter, unused, {0, 0});
    }
    write_register(adapter, SEQUENCE_STATUS, ACKNOWLEDGE);
    write_register(adapter, SEQUENCE_CONTROL, sequence_command(std::size(IDENTIFICATION)));
    if (qfu_norflash_wait_done(adapter, POLLS_IDENTIFICATION) != 0) {
        report_stuck(322, "qfu_norflash_identify");
        return QFU_FAILED;
    }
    id = qfu_mem_read32(adapter.root_bridge, adapter.aux_base);
    return 0;
}

std::uint32_t qfu_norflash_identify(QFU_ADAPTER& adapter) {
    std::uint32_t id = 0;
    if (qfu_norflash_read_id(adapter, id) != 0) {
        return QFU_FAILED;
    }
    QFU_FLASH_SLOT& slot = *adapter.current_slot;
    slot.chip = nullptr;
    for (const QFU_NOR_CHIP& known : CHIPS) {
        if (known.id_value == id) {
            slot.chip = &known;
            slot.chip_type = QFU_CHIP_NOR;
        }
    }
    if (slot.chip == nullptr) {
        qfu_print("\n(0x%lx)\n", id);
    }
    qfu_samsung_reset(adapter);
    return slot.chip != nullptr ? 0 : QFU_FAILED;
}

std::uint32_t qfu_norflash_read_words(QFU_ADAPTER& adapter, std::uint32_t address,
                                      std::uint8_t* buffer, std::uint32_t count) {
    open_window_for_reading(adapter);
    const std::uint32_t in_window = 2 * read_register(adapter, WINDOW_CONTROL) - 1;
    const std::uint32_t start = read_register(adapter, WINDOW_BASE) & WINDOW_PAGE_BITS;
    for (std::size_t offset = 0; offset < count; offset += 2) {
        const std::uint32_t at = address + static_cast<std::uint32_t>(offset);
        write_register(adapter, WINDOW_BASE, ((at & ~in_window) + start) | WINDOW_OPEN);
        const std::uint16_t word =
            qfu_mem_read16(adapter.root_bridge, adapter.aux_base + (at & in_window));
        buffer[offset] = static_cast<std::uint8_t>(word);
        buffer[offset + 1] = static_cast<std::uint8_t>(word >> 8);
    }
    return 0;
}

std::uint32_t qfu_norflash_sector_erase(QFU_ADAPTER& adapter, std::uint32_t address) {
    const BusCycle cycles[] = {
        UNLOCK_1, UNLOCK_2, {0x555,        0x80},
          UNLOCK_1, UNLOCK_2, {address >> 1, 0x30},
    };
    return run(adapter, cycles, POLLS_SECTOR_ERASE);
}

std::uint32_t qfu_norflash_chip_erase(QFU_ADAPTER& adapter) {
    qfu_samsung_reset(adapter);
    return run(adapter, CHIP_ERASE, POLLS);
}

std::uint32_t qfu_norflash_program(QFU_ADAPTER& adapter, std::uint32_t address,
                                   std::span<const std::uint8_t> data) {
    constexpr std::uint32_t ERASED_WORD = 0xFFFF;
    constexpr std::uint32_t ERASED_BYTE = 0xFF;
    if (run(adapter, UNLOCK_BYPASS, POLLS) != 0) {
        return QFU_FAILED;
    }
    for (std::size_t i = 0; i < data.size(); i += 2) {
        const std::uint32_t high = i + 1 < data.size() ? data[i + 1] : ERASED_BYTE;
        const std::uint32_t word = data[i] | high << 8;
        if (word == ERASED_WORD) {
            continue;
        }
        const std::uint32_t at = address + static_cast<std::uint32_t>(i);
        const BusCycle cycles[] = {
            {0,       0xA0},
            {at >> 1, word},
        };
        if (run(adapter, cycles, POLLS) != 0) {
            return QFU_FAILED;
        }
    }
    return run(adapter, BYPASS_RESET, POLLS);
}

QFU_ERASE_UNIT qfu_norflash_block(std::uint32_t id_value, std::uint32_t address) {
    const std::uint32_t size = in_boot_block(id_value, address) ? BOOT_BLOCK_SIZE : BLOCK_SIZE;
    return {address & ~(size - 1), size};
}

std::uint32_t qfu_norflash_block_number(std::uint32_t id_value, std::uint32_t address) {
    if (!in_boot_block(id_value, address)) {
        return address / BLOCK_SIZE + BOOT_BLOCKS - 1;
    }
    const std::uint32_t block = address / BOOT_BLOCK_SIZE;
    return block < BOOT_BLOCKS ? block : block % BOOT_BLOCKS + FIRST_TOP_BOOT_BLOCK;
}

void qfu_norflash_install(QFU_FLASH_SLOT& slot) {
    slot.reg_read = nullptr;
    slot.reg_write = nullptr;
    slot.probe = probe;
    slot.finish = finish;
    slot.erase_sector = erase_sector;
    slot.erase_block = nullptr;
    slot.erase_chip = erase_chip;
    slot.read = read;
    slot.erase_range = erase_range;
    slot.write = write;
    slot.show_info = show_info;
}
