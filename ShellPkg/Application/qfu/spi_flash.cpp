#include "spi_flash.h"

#include "adapter.h"
#include "bounds.h"
#include "console.h"
#include "context.h"
#include "platform/clock.h"
#include "platform/shell.h"

namespace {

/// Status register of the chip.
constexpr std::uint32_t STATUS_BUSY = 0x1;
constexpr std::uint32_t STATUS_WRITE_ENABLED = 0x2;
constexpr std::uint32_t STATUS_BUSY_OR_ENABLED = STATUS_BUSY | STATUS_WRITE_ENABLED;

/// Busy bit of the command register.
constexpr std::uint32_t INDEXED_BUSY = 0x10;
constexpr std::uint32_t WINDOW_BUSY = 0x01;

constexpr std::size_t POLL_US = 10;
constexpr std::size_t MILLISECOND_US = 1000;

/// How long an operation is waited for; 10 us of stall follow each poll and each try that is in
/// vain.
struct PollLimits {
    std::uint32_t ready_polls;  ///< command register reads until the controller counts as stuck
    std::uint32_t status_tries; ///< status reads until the chip counts as stuck; 0: none are made
};
constexpr PollLimits IDENTIFICATION{100'000, 0};
constexpr PollLimits STATUS_READ{100'000, 0};
constexpr PollLimits WRITE_ENABLE{200'000, 3'000'000};
constexpr PollLimits PROTECTION_QUERY{10'000, 0};
constexpr PollLimits SECTOR_UNPROTECT{100'000, 0};
constexpr PollLimits STATUS_WRITE{100'000, 3'000'000};
constexpr PollLimits UNIT_ERASE{100'000, 1'000'000};
constexpr PollLimits CHIP_ERASE{100'000, 10'000'000};
constexpr PollLimits DATA_READ{300'000, 0};
constexpr PollLimits PROGRAM{200'000, 300'000};

/// Queries of a sector that was just unprotected before it is taken as unprotected anyway.
constexpr std::uint32_t UNPROTECT_QUERIES = 100'000;

/// Pauses that a chip needs before its status is worth asking for, in units of 1 ms.
constexpr std::uint32_t STATUS_WRITE_PAUSE_MS = 20;
constexpr std::uint32_t ERASE_PAUSE_MS = 100;

/// Opcodes of chips with sector protection; these are in no chip record.
constexpr std::uint8_t OP_QUERY_PROTECTION = 0x3C;
constexpr std::uint8_t OP_UNPROTECT_SECTOR = 0x39;

constexpr std::uint8_t MAKER_WITH_SECTOR_PROTECTION = 0x1F;

/// What a controller does in one cycle: an opcode, then perhaps an address, then data.
struct SpiCycle {
    std::uint8_t opcode;
    bool address; ///< the address register follows the opcode
    bool receive; ///< data comes from the chip; else it goes to it
    std::uint8_t bytes;
};

/// Kind 1: opcode in bits 16 to 23, receive 13, address 12, byte count 8 to 11; bits 4 and 5 start
/// it.
constexpr std::uint32_t indexed_command(SpiCycle c) {
    return std::uint32_t{c.opcode} << 16 | (c.receive ? 0x2000U : 0U) | (c.address ? 0x1000U : 0U) |
           std::uint32_t{c.bytes} << 8 | 0x30U;
}

/// Kinds 2 and 4: opcode in bits 8 to 15, byte count 4 to 7, receive 2, address 1; bit 0 starts it.
constexpr std::uint32_t window_command(SpiCycle c) {
    return 0x09130000U | std::uint32_t{c.opcode} << 8 | std::uint32_t{c.bytes} << 4 |
           (c.receive ? 0x4U : 0U) | (c.address ? 0x2U : 0U) | 0x1U;
}
static_assert(indexed_command({0x9F, false, true, 4}) == 0x009F2430);
static_assert(indexed_command({0x02, true, false, 1}) == 0x00021130);
static_assert(window_command({0x9F, false, true, 4}) == 0x09139F45);
static_assert(window_command({0x02, true, false, 1}) == 0x09130213);

bool is_indexed(const QFU_ADAPTER& adapter) {
    return adapter.flash_if == QFU_FLASH_IF_INDEXED;
}

std::uint32_t command_word(const QFU_ADAPTER& adapter, SpiCycle cycle) {
    return is_indexed(adapter) ? indexed_command(cycle) : window_command(cycle);
}

/// The window controllers write a status byte with the word that reads one.
std::uint32_t status_write_word(const QFU_ADAPTER& adapter, std::uint8_t opcode) {
    return is_indexed(adapter) ? indexed_command({opcode, false, false, 1})
                               : window_command({opcode, false, true, 1});
}

/// The window controllers know no query; they send opcode 0x36 with one byte instead.
std::uint32_t protection_query_word(const QFU_ADAPTER& adapter) {
    return is_indexed(adapter) ? indexed_command({OP_QUERY_PROTECTION, true, true, 1})
                               : window_command({0x36, true, false, 1});
}

/// Bases of the eleven protection sectors, in address order.
constexpr std::uint32_t PROTECTION_SECTORS[] = {
    0x00000, 0x10000, 0x20000, 0x30000, 0x40000, 0x50000,
    0x60000, 0x70000, 0x78000, 0x7A000, 0x7C000,
};

/// Identification values of chips that power up protected, first byte lowest.
constexpr std::uint32_t ID_SECTOR_PROTECTED = 0x441F;
constexpr std::uint32_t IDS_BLOCK_PROTECTED[] = {0x8D25BF, 0x8DBF, 0x25BF};

const QFU_CHIP_ENTRY& chip(const QFU_ADAPTER& adapter) {
    return *static_cast<const QFU_CHIP_ENTRY*>(adapter.current_slot->chip);
}

std::uint32_t read_register(QFU_ADAPTER& adapter, std::uint32_t reg) {
    return adapter.current_slot->reg_read(adapter, reg);
}

void write_register(QFU_ADAPTER& adapter, std::uint32_t reg, std::uint32_t value) {
    adapter.current_slot->reg_write(adapter, reg, value);
}

void start(QFU_ADAPTER& adapter, std::uint32_t command) {
    write_register(adapter, QFU_SPI_COMMAND, command);
}

void start_at(QFU_ADAPTER& adapter, std::uint32_t address, std::uint32_t command) {
    write_register(adapter, QFU_SPI_ADDRESS, address);
    start(adapter, command);
}

/// Up to four bytes that the last cycle received, the first in bits 0 to 7.
std::uint32_t received(QFU_ADAPTER& adapter) {
    return read_register(adapter, is_indexed(adapter) ? QFU_SPI_DATA_OUT : QFU_SPI_DATA_IN);
}

void pause(std::uint32_t milliseconds) {
    for (std::uint32_t i = 0; i < milliseconds; ++i) {
        platform::stall(MILLISECOND_US);
    }
}

void unprotect_every_sector(QFU_ADAPTER& adapter) {
    for (const std::uint32_t base : PROTECTION_SECTORS) {
        qfu_spiflash_unprotect_sector(adapter, base);
    }
}

/// Brings the controller of kind 1 into the state that its first cycle needs.
void set_up_indexed_controller(QFU_ADAPTER& adapter) {
    constexpr std::uint32_t SET_UP_REGISTER = 20;
    const std::uint32_t index = adapter.reg_base + QFU_INDEX_REGISTER;
    qfu_mem_write32(adapter.root_bridge, index, 0x02000070);
    qfu_mem_write32(adapter.root_bridge, index, 0);
    write_register(adapter, SET_UP_REGISTER, 0);
}

std::uint32_t probe(QFU_ADAPTER& adapter) {
    if (qfu_spiflash_identify(adapter) != nullptr) {
        qfu_spiflash_unlock(adapter);
    }
    return 0;
}

std::uint32_t finish(QFU_ADAPTER& /*adapter*/) {
    return 0;
}

/// What sets the erase of a sector apart from that of a block.
struct EraseUnit {
    std::uint8_t opcode;
    std::uint32_t size;
    std::uint32_t timeout_number;
};

std::uint32_t erase_unit(QFU_ADAPTER& adapter, std::uint32_t address, EraseUnit unit) {
    if (qfu_spiflash_write_enable(adapter) != 0) {
        return QFU_FAILED;
    }
    start_at(adapter, address & ~(unit.size - 1),
             command_word(adapter, {unit.opcode, true, false, 0}));
    if (qfu_spiflash_wait_ready(adapter, UNIT_ERASE.ready_polls) != 0) {
        qfu_print("%d timeout\n", unit.timeout_number);
        return QFU_FAILED;
    }
    pause(ERASE_PAUSE_MS);
    return qfu_spiflash_wait_status(adapter, STATUS_BUSY_OR_ENABLED, 0, UNIT_ERASE.status_tries);
}

std::uint32_t erase_sector(QFU_ADAPTER& adapter, std::uint32_t address) {
    const QFU_CHIP_ENTRY& entry = chip(adapter);
    return erase_unit(adapter, address, {entry.op_sector_erase, entry.sector_size, 866});
}

std::uint32_t erase_block(QFU_ADAPTER& adapter, std::uint32_t address) {
    const QFU_CHIP_ENTRY& entry = chip(adapter);
    return erase_unit(adapter, address, {entry.op_block_erase, entry.block_size, 909});
}

std::uint32_t erase_chip(QFU_ADAPTER& adapter) {
    const QFU_CHIP_ENTRY& entry = chip(adapter);
    if (entry.id_bytes[0] == MAKER_WITH_SECTOR_PROTECTION) {
        unprotect_every_sector(adapter);
    }
    if (qfu_spiflash_write_enable(adapter) != 0) {
        return QFU_FAILED;
    }
    start(adapter, command_word(adapter, {entry.op_chip_erase, false, false, 0}));
    if (qfu_spiflash_wait_ready(adapter, CHIP_ERASE.ready_polls) != 0) {
        qfu_print("%d timeout\n", 970);
        return QFU_FAILED;
    }
    return qfu_spiflash_wait_status(adapter, STATUS_BUSY_OR_ENABLED, 0, CHIP_ERASE.status_tries);
}

std::uint32_t read(QFU_ADAPTER& adapter, std::uint32_t address, std::uint8_t* buffer,
                   std::uint32_t count) {
    constexpr std::uint32_t PIECE = 4;
    while (count > 0) {
        if (platform::break_requested()) {
            break;
        }
        // A piece ends at the next multiple of four, so all but the ends are whole.
        std::uint32_t n = qfu_smaller(count, PIECE - address % PIECE);
        do {
            qfu_spiflash_read_piece(adapter, address, buffer, n);
            address += n;
            buffer += n;
            count -= n;
        } while (n == PIECE && count >= PIECE);
    }
    return 0;
}

/// Programs one byte; the latch that each program cycle clears is set anew before it.
std::uint32_t program_byte(QFU_ADAPTER& adapter, std::uint32_t address, std::uint8_t byte) {
    if (qfu_spiflash_write_enable(adapter) != 0) {
        return QFU_FAILED;
    }
    write_register(adapter, QFU_SPI_DATA_OUT, byte);
    start_at(adapter, address, command_word(adapter, {chip(adapter).op_program, true, false, 1}));
    if (qfu_spiflash_wait_ready(adapter, PROGRAM.ready_polls) != 0) {
        qfu_print("%d timeout...\n", 1111);
        return QFU_FAILED;
    }
    if (qfu_spiflash_wait_status(adapter, STATUS_BUSY, 0, PROGRAM.status_tries) != 0) {
        std::uint32_t status = 0;
        qfu_spiflash_read_status(adapter, status);
        qfu_print("write failed,flash status %lx.\n", status);
        return QFU_FAILED;
    }
    return 0;
}

std::uint32_t write(QFU_ADAPTER& adapter, std::uint32_t address, const std::uint8_t* data,
                    std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
        if (program_byte(adapter, address + i, data[i]) != 0) {
            return QFU_FAILED;
        }
    }
    return 0;
}

std::uint32_t erase_range(QFU_ADAPTER& adapter, std::uint32_t address, std::uint32_t count) {
    const QFU_CHIP_ENTRY& entry = chip(adapter);
    const std::uint32_t end = qfu_smaller(address + count, entry.whole_size);
    if (address >= end) {
        return 0;
    }
    if (entry.sector_size == 0) {
        return QFU_FAILED;
    }
    // Wide enough for the step past the end of a chip that fills the address space.
    std::uint64_t at = address & ~(entry.sector_size - 1);
    for (; at < end; at += entry.sector_size) {
        if (platform::break_requested()) {
            return 0;
        }
        const auto sector = static_cast<std::uint32_t>(at);
        qfu_print("\rErase block %5.8lx", sector);
        if (erase_sector(adapter, sector) != 0) {
            return QFU_FAILED;
        }
    }
    return 0;
}

void show_info(QFU_ADAPTER& adapter) {
    if (adapter.current_slot == nullptr) {
        qfu_print("No target interface ...%d.\n", 1208);
        return;
    }
    if (adapter.current_slot->chip == nullptr) {
        qfu_print("No detected any SPI Flash chip...%d\n", 1215);
        return;
    }
    const QFU_CHIP_ENTRY& entry = chip(adapter);
    qfu_print("SPI FLASH Chip Whole Size=%lX, ", entry.whole_size);
    qfu_print("ID[");
    for (std::size_t i = 0; i < entry.id_len; ++i) {
        qfu_print(i == 0 ? "%02X" : " %02X", entry.id_bytes[i]);
    }
    qfu_print("].\n");
}

} // namespace

std::uint32_t qfu_spiflash_wait_ready(QFU_ADAPTER& adapter, std::uint32_t polls) {
    const std::uint32_t busy = is_indexed(adapter) ? INDEXED_BUSY : WINDOW_BUSY;
    for (std::uint32_t i = 0; i < polls; ++i) {
        if ((read_register(adapter, QFU_SPI_COMMAND) & busy) == 0) {
            return 0;
        }
        if (platform::pauses_spent()) {
            break;
        }
        platform::stall(POLL_US);
    }
    return QFU_FAILED;
}

std::uint32_t qfu_spiflash_read_status(QFU_ADAPTER& adapter, std::uint32_t& status) {
    start(adapter, command_word(adapter, {chip(adapter).op_read_status, false, true, 1}));
    if (qfu_spiflash_wait_ready(adapter, STATUS_READ.ready_polls) != 0) {
        qfu_print("%d timeout\n", 366);
        return QFU_FAILED;
    }
    status = received(adapter);
    return 0;
}

std::uint32_t qfu_spiflash_wait_status(QFU_ADAPTER& adapter, std::uint32_t mask,
                                       std::uint32_t value, std::uint32_t tries) {
    for (std::uint32_t i = 0; i < tries; ++i) {
        std::uint32_t status = 0;
        if (qfu_spiflash_read_status(adapter, status) != 0) {
            qfu_print("%d...\n", 391);
        } else if ((status & mask) == value) {
            return 0;
        }
        if (platform::pauses_spent()) {
            break;
        }
        platform::stall(POLL_US);
    }
    return QFU_FAILED;
}

std::uint32_t qfu_spiflash_write_enable(QFU_ADAPTER& adapter) {
    start(adapter, command_word(adapter, {chip(adapter).op_write_enable, false, false, 0}));
    if (qfu_spiflash_wait_ready(adapter, WRITE_ENABLE.ready_polls) != 0) {
        std::uint32_t status = 0;
        qfu_spiflash_read_status(adapter, status);
        qfu_print("write enable failed,flash status %lx.\n", status);
        return QFU_FAILED;
    }
    if (qfu_spiflash_wait_status(adapter, STATUS_BUSY_OR_ENABLED, STATUS_WRITE_ENABLED,
                                 WRITE_ENABLE.status_tries) != 0) {
        qfu_print("%d...\n", 440);
        return QFU_FAILED;
    }
    return 0;
}

std::uint32_t qfu_spiflash_sector_base(std::uint32_t address) {
    std::uint32_t base = 0;
    for (const std::uint32_t sector : PROTECTION_SECTORS) {
        if (sector <= address) {
            base = sector;
        }
    }
    return base;
}

std::uint32_t qfu_spiflash_unprotect_sector(QFU_ADAPTER& adapter, std::uint32_t address) {
    const std::uint32_t base = qfu_spiflash_sector_base(address);
    const std::uint32_t query = protection_query_word(adapter);

    std::uint32_t protection = 0xFF;
    start_at(adapter, base, query);
    if (qfu_spiflash_wait_ready(adapter, PROTECTION_QUERY.ready_polls) == 0) {
        protection = received(adapter);
    } else {
        qfu_print("%d timeout\n", 521);
    }
    if ((protection & 0xFF) == 0) {
        return 0;
    }

    if (qfu_spiflash_write_enable(adapter) != 0) {
        return QFU_FAILED;
    }
    start_at(adapter, base, command_word(adapter, {OP_UNPROTECT_SECTOR, true, false, 0}));
    if (qfu_spiflash_wait_ready(adapter, SECTOR_UNPROTECT.ready_polls) != 0) {
        return QFU_FAILED;
    }
    for (std::uint32_t i = 0; i < UNPROTECT_QUERIES; ++i) {
        start_at(adapter, base, query);
        if (qfu_spiflash_wait_ready(adapter, PROTECTION_QUERY.ready_polls) != 0) {
            qfu_print("%d timeout\n", 569);
        } else if (received(adapter) == 0) {
            return 0;
        }
        if (platform::pauses_spent()) {
            break;
        }
        platform::stall(POLL_US);
    }
    // A chip that goes on answering something else still gets its command; it shows when it
    // verifies.
    return 0;
}

std::uint32_t qfu_spiflash_unprotect_all(QFU_ADAPTER& adapter) {
    qfu_spiflash_write_enable(adapter);
    write_register(adapter, QFU_SPI_DATA_OUT, 0);
    start(adapter, status_write_word(adapter, chip(adapter).op_write_status));
    pause(STATUS_WRITE_PAUSE_MS);
    if (qfu_spiflash_wait_ready(adapter, STATUS_WRITE.ready_polls) == 0) {
        return 0;
    }
    if (qfu_spiflash_wait_status(adapter, STATUS_BUSY, 0, STATUS_WRITE.status_tries) != 0) {
        qfu_print("%d timeout\n", 684);
        return QFU_FAILED;
    }
    return 0;
}

std::uint32_t qfu_spiflash_read_id(QFU_ADAPTER& adapter, std::uint8_t opcode, std::uint32_t& id) {
    start(adapter, command_word(adapter, {opcode, false, true, 4}));
    if (qfu_spiflash_wait_ready(adapter, IDENTIFICATION.ready_polls) != 0) {
        return QFU_FAILED;
    }
    id = received(adapter);
    return 0;
}

const QFU_CHIP_ENTRY* qfu_spiflash_identify(QFU_ADAPTER& adapter) {
    if (is_indexed(adapter) && adapter.generation != 2) {
        set_up_indexed_controller(adapter);
    }
    const QFU_CHIP_ENTRY* entry = qfu_spiflash_lookup(adapter);
    if (entry != nullptr) {
        adapter.current_slot->chip_type = QFU_CHIP_SPI;
        adapter.current_slot->chip = entry;
    }
    return entry;
}

void qfu_spiflash_unlock(QFU_ADAPTER& adapter) {
    const QFU_CHIP_ENTRY& entry = chip(adapter);
    if (qfu_spiflash_id_match(entry, ID_SECTOR_PROTECTED) == 0) {
        qfu_spiflash_unprotect_all(adapter);
        unprotect_every_sector(adapter);
        return;
    }
    for (const std::uint32_t id : IDS_BLOCK_PROTECTED) {
        if (qfu_spiflash_id_match(entry, id) == 0) {
            qfu_spiflash_unprotect_all(adapter);
            return;
        }
    }
}

const QFU_CHIP_ENTRY* qfu_spiflash_lookup(QFU_ADAPTER& adapter) {
    const QFU_CHIP_LIST* list = adapter.context->chip_list;
    if (list == nullptr) {
        qfu_print("No SPI Flash chips list file.\n");
        return nullptr;
    }
    for (const std::uint32_t opcode : list->id_opcodes) {
        if (opcode == 0) {
            break;
        }
        std::uint32_t id = 0;
        if (qfu_spiflash_read_id(adapter, static_cast<std::uint8_t>(opcode), id) != 0 || id == 0) {
            continue;
        }
        for (const QFU_CHIP_ENTRY& entry : list->records) {
            if (entry.whole_size == 0) {
                break;
            }
            if (qfu_spiflash_id_match(entry, id) == 0) {
                return &entry;
            }
        }
    }
    return nullptr;
}

std::uint32_t qfu_spiflash_read_piece(QFU_ADAPTER& adapter, std::uint32_t address,
                                      std::uint8_t* buffer, std::uint32_t count) {
    start_at(adapter, address,
             command_word(adapter,
                          {chip(adapter).op_read, true, true, static_cast<std::uint8_t>(count)}));
    if (qfu_spiflash_wait_ready(adapter, DATA_READ.ready_polls) != 0) {
        qfu_print("%d timeout\n", 1029);
        return QFU_FAILED;
    }
    const std::uint32_t data = received(adapter);
    for (std::uint32_t i = 0; i < count; ++i) {
        buffer[i] = static_cast<std::uint8_t>(data >> (8 * i));
    }
    return 0;
}

void qfu_spiflash_install(QFU_FLASH_SLOT& slot) {
    slot.probe = probe;
    slot.finish = finish;
    slot.erase_sector = erase_sector;
    slot.erase_block = erase_block;
    slot.erase_chip = erase_chip;
    slot.read = read;
    slot.erase_range = erase_range;
    slot.write = write;
    slot.show_info = show_info;
}
