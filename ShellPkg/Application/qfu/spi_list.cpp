#include "spi_list.h"

#include "console.h"
#include "context.h"
#include "file_io.h"
#include "platform/pool.h"

namespace {

constexpr char FILE_NAME[] = "spilist.bin";
constexpr std::uint64_t BUFFER_UNIT = 1024;

bool version_at_least_1_1(const QFU_CHIP_LIST& list) {
    return list.version_hi > 1 || (list.version_hi == 1 && list.version_lo >= 1);
}

bool adds_up_to_zero(std::span<const std::uint8_t> bytes) {
    std::uint8_t sum = 0;
    for (const std::uint8_t byte : bytes) {
        sum = static_cast<std::uint8_t>(sum + byte);
    }
    return sum == 0;
}

/// The driver walks opcodes and records up to their ends, so both ends must be there.
bool opcodes_end(const QFU_CHIP_LIST& list) {
    for (const std::uint32_t word : list.id_opcodes) {
        if (word == 0) {
            return true;
        }
    }
    return false;
}

bool records_end_behind_one(const QFU_CHIP_LIST& list) {
    std::size_t count = 0;
    while (count < list.records.size() && list.records[count].whole_size != 0) {
        ++count;
    }
    return count > 0 && count < list.records.size();
}

} // namespace

bool qfu_chiplist_valid(std::span<const std::uint8_t> file) {
    if (file.size() < sizeof(QFU_CHIP_LIST)) {
        return false;
    }
    const auto& list = *reinterpret_cast<const QFU_CHIP_LIST*>(file.data());
    return list.magic == QFU_CHIP_LIST_MAGIC && list.body_size == QFU_CHIP_LIST_BODY_SIZE &&
           list.marker == QFU_CHIP_LIST_MARKER && version_at_least_1_1(list) &&
           adds_up_to_zero(file.first(sizeof(QFU_CHIP_LIST))) && records_end_behind_one(list) &&
           opcodes_end(list);
}

EFI_STATUS qfu_chiplist_load(QFU_CONTEXT& context) {
    QFU_FILE file = qfu_fopen(FILE_NAME, "r");
    if (!file) {
        qfu_print("The %s file can't open.\n", FILE_NAME);
        return EFI_INVALID_PARAMETER;
    }
    qfu_fseek(file, QFU_SEEK::END);
    const std::uint64_t size = qfu_fsize(file);
    qfu_fseek(file, QFU_SEEK::START);

    const std::uint64_t rounded = (size + BUFFER_UNIT - 1) & ~(BUFFER_UNIT - 1);
    platform::Pool<std::uint8_t> buffer(rounded);
    if (!buffer) {
        qfu_print("*tmp_buffer==> resource is not enough(0x%lx).\n", rounded);
    } else {
        // A read that fails or stops short leaves zeros, which are no valid list.
        std::size_t transferred = 0;
        qfu_fread(file, {buffer.get(), size}, transferred);
        if (qfu_chiplist_valid({buffer.get(), size})) {
            context.chip_list = reinterpret_cast<const QFU_CHIP_LIST*>(buffer.get());
            context.chip_list_file = std::move(buffer);
        }
    }
    qfu_fclose(file);
    return EFI_SUCCESS;
}

int qfu_spiflash_id_match(const QFU_CHIP_ENTRY& entry, std::uint32_t id) {
    if (entry.id_len > entry.id_bytes.size()) {
        return 1;
    }
    for (std::size_t i = 0; i < entry.id_len; ++i) {
        // The value repeats behind its fourth byte.
        if (entry.id_bytes[i] != static_cast<std::uint8_t>(id >> (8 * i % 32))) {
            return 1;
        }
    }
    return 0;
}
