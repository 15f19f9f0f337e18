#include "chip_list.h"

#include "file_name.h"
#include "qfu/context.h"
#include "qfu/spi_list.h"

namespace flash {
namespace {

constexpr std::string_view NAME = "spilist.bin";

/// The list's name in the folder of `program`.
platform::FileName beside(const CHAR16* program) {
    platform::FileName name{};
    std::size_t folder = 0;
    for (std::size_t i = 0; program[i] != 0 && i < platform::FileName::CAPACITY - 1; ++i) {
        name.text[i] = program[i];
        if (program[i] == '\\' || program[i] == '/' || program[i] == ':') {
            folder = i + 1;
        }
    }
    name.text[folder] = 0;
    append(name, NAME);
    return name;
}

} // namespace

Outcome load_chip_list(const CHAR16* program, QFU_CONTEXT& context) {
    platform::FileName name{};
    append(name, NAME);
    platform::FileHandle file;
    EFI_STATUS status = file.open(name, platform::ACCESS_READ);
    if (status == EFI_NOT_FOUND) {
        name = beside(program);
        status = file.open(name, platform::ACCESS_READ);
    }
    if (status != EFI_SUCCESS) {
        return refused("@: cannot be opened", {name});
    }
    platform::Pool<std::uint8_t> bytes(sizeof(QFU_CHIP_LIST));
    if (!bytes) {
        return refused("no memory for the chip list");
    }
    std::size_t count = sizeof(QFU_CHIP_LIST);
    if (platform::read(file.get(), bytes.get(), count) != EFI_SUCCESS ||
        !qfu_chiplist_valid({bytes.get(), count})) {
        return refused("@: is no valid chip list", {name});
    }
    context.chip_list = reinterpret_cast<const QFU_CHIP_LIST*>(bytes.get());
    context.chip_list_file = std::move(bytes);
    return {};
}

} // namespace flash
