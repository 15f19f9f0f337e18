#include "flash_cmd.h"

#include "adapter.h"
#include "bounds.h"
#include "bytes.h"
#include "console.h"
#include "context.h"
#include "phy_test.h"
#include "platform/pool.h"
#include "platform/shell.h"

#include <array>

namespace {

/// Blanks a line before progress is printed over it.
constexpr char CLEAR_LINE[] = "\n\r                                                        ";
static_assert(sizeof(CLEAR_LINE) - 1 == 2 + 56);

/// Room for one piece of flash, with an even number of bytes for chips that are read in words.
using Piece = std::array<std::uint8_t, QFU_VERIFY_PIECE>;
static_assert(QFU_VERIFY_PIECE % 2 == 0);

bool selected_chip(const QFU_ADAPTER& adapter) {
    return adapter.current_slot != nullptr && adapter.current_slot->chip != nullptr;
}

platform::Pool<std::uint8_t> take_block_buffer() {
    platform::Pool<std::uint8_t> buffer(QFU_BLOCK_SIZE);
    if (!buffer) {
        qfu_print("The memory is out of resource!!\n");
    }
    return buffer;
}

EFI_STATUS wipe(QFU_ADAPTER& adapter) {
    if (qfu_confirm(adapter) != 0) {
        return EFI_SUCCESS;
    }
    qfu_print("Wipe whole SPI-Flash Chip...");
    const bool wiped = selected_chip(adapter) && adapter.current_slot->erase_chip != nullptr &&
                       adapter.current_slot->erase_chip(adapter) == 0;
    qfu_print(wiped ? "Ok!\n" : "Fail!\n");
    return EFI_SUCCESS;
}

EFI_STATUS erase_range(QFU_ADAPTER& adapter) {
    const QFU_CONTEXT& request = *adapter.context;
    std::uint32_t count = request.has(QFU_REQ_SIZE) ? request.size : 0;
    if (request.file && (request.file_mode & QFU_FILE_MODE_IMAGE) != 0) {
        count = qfu_larger(count, request.file_size);
    }
    if (count == 0) {
        qfu_print("please input -sz or a file -wbf!!\n");
        return EFI_INVALID_PARAMETER;
    }
    if (qfu_confirm(adapter) != 0) {
        return EFI_SUCCESS;
    }
    qfu_print(CLEAR_LINE);
    if (selected_chip(adapter) && adapter.current_slot->erase_range != nullptr) {
        adapter.current_slot->erase_range(adapter, request.address, count);
    }
    qfu_print("\n");
    return EFI_SUCCESS;
}

EFI_STATUS dump(QFU_ADAPTER& adapter) {
    const QFU_CONTEXT& request = *adapter.context;
    const platform::Pool<std::uint8_t> buffer = take_block_buffer();
    if (!buffer) {
        return EFI_OUT_OF_RESOURCES;
    }
    std::uint32_t address = request.address;
    std::uint32_t remaining = request.size;
    qfu_print(CLEAR_LINE);
    while (remaining > 0 && !platform::break_requested()) {
        const std::uint32_t n = qfu_smaller(remaining, QFU_BLOCK_SIZE);
        const std::span<std::uint8_t> block(buffer.get(), n);
        qfu_read_block(adapter, address, block);
        if (platform::break_requested()) {
            // The break may have cut the read; a file must not get bytes that were never in the
            // chip.
            break;
        }
        qfu_fwrite(request.file, block);
        if (platform::break_seen()) {
            // The write asks for a break, too, and then writes nothing.
            break;
        }
        qfu_print("\rRead address %5.8lx", address);
        address += n;
        remaining -= n;
    }
    qfu_print("\n");
    if (remaining == 0) {
        qfu_print("\nRead file is successful!!\n");
    }
    return EFI_SUCCESS;
}

bool read_image_block(const QFU_CONTEXT& request, std::span<std::uint8_t> block) {
    std::size_t transferred = 0;
    return qfu_fread(request.file, block, transferred) == EFI_SUCCESS &&
           transferred == block.size();
}

void erase_for_image(QFU_ADAPTER& adapter) {
    const QFU_CONTEXT& request = *adapter.context;
    if (selected_chip(adapter) && adapter.current_slot->erase_range != nullptr) {
        adapter.current_slot->erase_range(adapter, request.address, request.file_size);
    } else if (adapter.current_slot != nullptr) {
        qfu_print("\nNo found any SPI Flash dev...%d\n", 1438);
    }
}

/// Programs and verifies the image block by block. @returns false at the first block that fails
bool program_blocks(QFU_ADAPTER& adapter, std::span<std::uint8_t> buffer,
                    std::uint32_t& remaining) {
    const QFU_CONTEXT& request = *adapter.context;
    std::uint32_t address = request.address;
    while (remaining > 0 && !platform::break_requested()) {
        const std::uint32_t n = qfu_smaller(remaining, QFU_BLOCK_SIZE);
        const std::span<std::uint8_t> block = buffer.first(n);
        if (!read_image_block(request, block) || qfu_write_block(adapter, address, block) != 0) {
            // A break cuts file and flash reads short, which is no fault of either; one that comes
            // behind a mismatch excuses nothing.
            return platform::break_seen();
        }
        qfu_print("\rWrite address %5.8lx", address);
        address += n;
        remaining -= n;
    }
    return true;
}

EFI_STATUS program(QFU_ADAPTER& adapter) {
    constexpr char DOES_NOT_FIT[] = "Address(0x%lx) + File Size(0x%lx) > Flash Size(0x%lx)\n";
    const QFU_CONTEXT& request = *adapter.context;
    const std::uint32_t flash_size = qfu_flash_size(adapter);
    if (flash_size == 0) {
        qfu_print("No Flash device!!\n");
        qfu_print(DOES_NOT_FIT, request.address, request.file_size, flash_size);
        return EFI_NO_MEDIA;
    }
    if (std::uint64_t{request.address} + request.file_size > flash_size) {
        qfu_print(DOES_NOT_FIT, request.address, request.file_size, flash_size);
        return EFI_SUCCESS;
    }
    const platform::Pool<std::uint8_t> buffer = take_block_buffer();
    if (!buffer) {
        return EFI_OUT_OF_RESOURCES;
    }
    if (qfu_confirm(adapter) != 0) {
        return EFI_SUCCESS;
    }
    // An adapter before this one may have read the image to its end. A break, which ends the file's
    // operations too, is no fault of the file.
    const bool rewound = qfu_fseek(request.file, QFU_SEEK::START) == 0 || platform::break_seen();
    std::uint32_t remaining = request.file_size;
    qfu_print(CLEAR_LINE);
    if (rewound) {
        erase_for_image(adapter);
    }
    qfu_print(CLEAR_LINE);
    EFI_STATUS status = EFI_SUCCESS;
    if (!rewound || !program_blocks(adapter, {buffer.get(), QFU_BLOCK_SIZE}, remaining)) {
        qfu_print("\nWrite file is fail!!\n");
        status = EFI_DEVICE_ERROR;
    }
    qfu_print("\n");
    if (remaining == 0 && status == EFI_SUCCESS) {
        qfu_print("\nWrite file is successful!!\n");
    }
    return status;
}

/// True when the request's script is for this adapter.
bool wants_script_of(const QFU_ADAPTER& adapter) {
    const QFU_CONTEXT& request = *adapter.context;
    return (request.file_mode & QFU_FILE_MODE_SCRIPT) != 0 && request.has(QFU_REQ_ADAPTER) &&
           request.adapter_id < request.adapter_count && request.adapter_id == adapter.index;
}

/// Writes the shell script that sets variables about the adapter and its chip.
void write_script(QFU_ADAPTER& adapter) {
    constexpr std::uint32_t REVISION = 0xFF;
    const QFU_FILE& file = adapter.context->file;
    const std::uint32_t flash_size = qfu_flash_size(adapter);
    qfu_fprintf(file, "echo -off\n");
    qfu_fprintf(file, "set ADCount %d\n", adapter.context->adapter_count);
    qfu_fprintf(file, "set DevId %04X\n", adapter.device_id);
    qfu_fprintf(file, "set RevId %lX\nset FlashSize 0x%lX\n", adapter.class_rev & REVISION,
                flash_size);
    qfu_fprintf(file, "echo -on\n");
}

/// The command that the request names; the first that applies.
EFI_STATUS run_command(QFU_ADAPTER& adapter) {
    const QFU_CONTEXT& request = *adapter.context;
    if (!selected_chip(adapter)) {
        qfu_print("No support dev inteface...\n");
        return EFI_NO_MEDIA;
    }
    if (request.has(QFU_REQ_WIPE)) {
        return wipe(adapter);
    }
    if (request.has(QFU_REQ_SECTOR_ERASE) && request.has(QFU_REQ_ADDRESS)) {
        return erase_range(adapter);
    }
    if (request.file) {
        if ((request.file_mode & QFU_FILE_MODE_DUMP) != 0 && request.has(QFU_REQ_SIZE) &&
            request.has(QFU_REQ_ADDRESS)) {
            return dump(adapter);
        }
        if ((request.file_mode & QFU_FILE_MODE_IMAGE) != 0 && request.has(QFU_REQ_ADDRESS)) {
            return program(adapter);
        }
        if (wants_script_of(adapter)) {
            write_script(adapter);
            return EFI_SUCCESS;
        }
    }
    if (request.has(QFU_REQ_PHYTEST)) {
        qfu_print("doPhyTest()!!\n");
        doPhyTest(adapter);
    }
    return EFI_SUCCESS;
}

void report_mismatch(std::uint32_t address, std::span<const std::uint8_t> source,
                     std::span<const std::uint8_t> target) {
    qfu_print("\nSource(0x%lx) Data=> ", static_cast<const void*>(source.data()));
    qfu_print("\n");
    qfu_hex_dump(source);
    qfu_print("\nTarget(0x%lx) Data=> ", address);
    qfu_print("\n");
    qfu_hex_dump(target);
}

} // namespace

EFI_STATUS process_file_fun(QFU_ADAPTER& adapter) {
    const QFU_FLASH_SLOT* slot = adapter.current_slot;
    const EFI_STATUS status = run_command(adapter);
    if (slot != nullptr && slot->finish != nullptr) {
        slot->finish(adapter);
    }
    return status;
}

int qfu_confirm(QFU_ADAPTER& adapter) {
    if (adapter.context->has(QFU_REQ_YES)) {
        return 0;
    }
    qfu_print("Press \"Y\" to start, other key will skip...\n");
    QFU_KEY key{};
    qfu_read_key(true, key);
    const auto answer = static_cast<char>(key.character & 0xFF);
    return answer == 'y' || answer == 'Y' ? 0 : -1;
}

int qfu_write_block(QFU_ADAPTER& adapter, std::uint32_t address,
                    std::span<const std::uint8_t> data) {
    const QFU_FLASH_SLOT* slot = adapter.current_slot;
    if (slot == nullptr) {
        return -1;
    }
    if (slot->chip == nullptr) {
        qfu_print("\nNo found any SPI Flash dev...%d\n", 1512);
        return -1;
    }
    if (slot->write != nullptr) {
        slot->write(adapter, address, data.data(), static_cast<std::uint32_t>(data.size()));
    }
    if (slot->read == nullptr) {
        return 0;
    }
    Piece scratch{};
    for (std::uint32_t offset = 0; offset < data.size(); offset += QFU_VERIFY_PIECE) {
        const auto source =
            data.subspan(offset, qfu_smaller<std::size_t>(data.size() - offset, scratch.size()));
        const auto target = std::span(scratch).first(source.size());
        if (slot->read(adapter, address + offset, target.data(),
                       static_cast<std::uint32_t>(target.size())) == QFU_FAILED) {
            qfu_print("read data fail....");
            return 0;
        }
        if (platform::break_requested()) {
            return -1;
        }
        if (!qfu_same_bytes(source, target)) {
            report_mismatch(address + offset, source, target);
            return -1;
        }
    }
    return 0;
}

int qfu_read_block(QFU_ADAPTER& adapter, std::uint32_t address, std::span<std::uint8_t> buffer) {
    const QFU_FLASH_SLOT* slot = adapter.current_slot;
    if (slot == nullptr) {
        return -1;
    }
    if (slot->chip == nullptr) {
        qfu_print("\nNo found any SPI Flash dev...%d\n", 1551);
        return -1;
    }
    if (slot->read == nullptr) {
        return 0;
    }
    Piece scratch{};
    for (std::uint32_t offset = 0; offset < buffer.size(); offset += QFU_VERIFY_PIECE) {
        const auto piece = buffer.subspan(
            offset, qfu_smaller<std::size_t>(buffer.size() - offset, scratch.size()));
        slot->read(adapter, address + offset, scratch.data(),
                   static_cast<std::uint32_t>(piece.size()));
        for (std::size_t i = 0; i < piece.size(); ++i) {
            piece[i] = scratch[i];
        }
    }
    return 0;
}
