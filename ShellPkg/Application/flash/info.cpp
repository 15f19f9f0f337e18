#include "commands.h"
#include "qfu/context.h"
#include "qfu/platform/clock.h"
#include "qfu/spi_flash.h"

namespace flash {
namespace {

void print_answers(QFU_ADAPTER& adapter) {
    for (const std::uint32_t opcode : id_opcodes(adapter)) {
        std::uint32_t id = 0;
        platform::limit_pauses(IDENTIFICATION_US);
        say("identification @: ", {Hex(opcode)});
        if (qfu_spiflash_read_id(adapter, static_cast<std::uint8_t>(opcode), id) != 0) {
            say("no answer\n");
            continue;
        }
        for (std::uint32_t shift = 0; shift < 32; shift += 8) {
            say("@@", {Digits((id >> shift) & 0xFF, 2), shift == 24 ? "\n" : " "});
        }
    }
}

void print_record(const QFU_CHIP_ENTRY& record) {
    say("record: @ bytes, sectors of @, blocks of @\nopcodes:",
        {Hex(record.whole_size), Hex(record.sector_size), Hex(record.block_size)});
    const std::uint8_t opcodes[] = {record.op_write_enable, record.op_read_status,
                                    record.op_write_status, record.op_read,
                                    record.op_program,      record.op_sector_erase,
                                    record.op_block_erase,  record.op_chip_erase};
    const char* uses[] = {"write enable", "read status",  "write status", "read",
                          "program",      "sector erase", "block erase",  "chip erase"};
    for (std::size_t i = 0; i < std::size(opcodes); ++i) {
        say("@@ @", {i == 0 ? " " : ", ", uses[i], Hex(opcodes[i])});
    }
    say("\n");
}

void print_status(QFU_ADAPTER& adapter) {
    std::uint32_t status = 0;
    platform::limit_pauses(IDENTIFICATION_US);
    if (qfu_spiflash_read_status(adapter, status) != 0) {
        say("status register: no answer\n");
        return;
    }
    say("status register @: busy @, write-enable latch @, bits 2 to 5 @\n",
        {Hex(status & 0xFF), status & 1, status >> 1 & 1, Hex(status >> 2 & 0xF)});
}

} // namespace

Outcome info(const Task& task) {
    QFU_ADAPTER& adapter = *task.choice.adapter;
    QFU_FLASH_SLOT& slot = adapter.slot[task.choice.chip_select];
    adapter.current_slot = &slot;
    if (task.choice.chip_select == 0) {
        return done("nothing was changed");
    }
    print_answers(adapter);
    QFU_CHIP_ENTRY unknown{};
    unknown.op_read_status = 0x05; // the opcode of every chip
    const void* known = slot.chip;
    if (known != nullptr) {
        print_record(*static_cast<const QFU_CHIP_ENTRY*>(known));
    } else {
        slot.chip = &unknown;
    }
    print_status(adapter);
    slot.chip = known;
    return done("nothing was changed");
}

} // namespace flash
