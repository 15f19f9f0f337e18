#include "spi_part.h"

#include "units.h"

#include <algorithm>
#include <iterator>

namespace emulator {
namespace {

constexpr EraseCommand k4K{0x20, 4 * kKiB};
constexpr EraseCommand k32K{0x52, 32 * kKiB};
constexpr EraseCommand k64K{0xD8, 64 * kKiB};
constexpr EraseCommand kNone{0x00, 0};

constexpr EraseSet erases(EraseCommand a, EraseCommand b, EraseCommand c, std::uint8_t chip,
                          std::uint8_t chip_too = 0) {
    EraseSet set{};
    set.units = {a, b, c};
    set.whole_chip = {chip, chip_too};
    return set;
}
constexpr EraseSet k4K64K = erases(k4K, k64K, kNone, 0xC7, 0x60);
constexpr EraseSet k4K64KOneOpcode = erases(k4K, k64K, kNone, 0xC7);
constexpr EraseSet kTwoBlockOpcodes = erases(k4K, {0x52, 64 * kKiB}, k64K, 0xC7, 0x60);
constexpr EraseSet k4K32K64K = erases(k4K, k32K, k64K, 0xC7, 0x60);
constexpr EraseSet kOnly32K = erases({0xD8, 32 * kKiB}, kNone, kNone, 0xC7);
constexpr EraseSet kOnly64K = erases(k64K, kNone, kNone, 0xC7);
constexpr EraseSet kD7Sectors = erases({0xD7, 4 * kKiB}, k64K, kNone, 0xC7, 0x60);
constexpr EraseSet kFirstGeneration = erases({0x52, 64 * kKiB}, kNone, kNone, 0x62);

constexpr WriteSet kPages{256, 0x00, 0x00};
constexpr WriteSet kWords{1, 0xAD, 0x50}; // single bytes, or words one behind the other

constexpr Protection kOpen = Protection::kOpenAtPowerUp;
constexpr Protection kBits = Protection::kBlockBitsSet;
constexpr Protection kSectors = Protection::kSectorRegisters;

constexpr SpiPart kSpiParts[] = {
  // name, identification opcode, length and bytes, size, erase commands, protection, writes
    {"W25X10",      0x9F, 3, {0xEF, 0x30, 0x11}, 128 * kKiB, &k4K64K,           kOpen,    &kPages},
    {"W25X20",      0x9F, 3, {0xEF, 0x30, 0x12}, 256 * kKiB, &k4K64K,           kOpen,    &kPages},
    {"W25X40",      0x9F, 3, {0xEF, 0x30, 0x13}, 512 * kKiB, &k4K64K,           kOpen,    &kPages},
    {"W25X80",      0x9F, 3, {0xEF, 0x30, 0x14}, 1 * kMiB,   &k4K64K,           kOpen,    &kPages},
    {"W25Q40",      0x9F, 3, {0xEF, 0x40, 0x13}, 512 * kKiB, &k4K32K64K,        kOpen,    &kPages},
    {"W25Q80",      0x9F, 3, {0xEF, 0x40, 0x14}, 1 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"W25Q16",      0x9F, 3, {0xEF, 0x40, 0x15}, 2 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"W25Q32",      0x9F, 3, {0xEF, 0x40, 0x16}, 4 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"W25Q64",      0x9F, 3, {0xEF, 0x40, 0x17}, 8 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"W25Q128",     0x9F, 3, {0xEF, 0x40, 0x18}, 16 * kMiB,  &k4K32K64K,        kOpen,    &kPages},
    {"MX25L512",    0x9F, 3, {0xC2, 0x20, 0x10}, 64 * kKiB,  &kTwoBlockOpcodes, kOpen,    &kPages},
    {"MX25L1005",   0x9F, 3, {0xC2, 0x20, 0x11}, 128 * kKiB, &k4K64K,           kOpen,    &kPages},
    {"MX25L2005",   0x9F, 3, {0xC2, 0x20, 0x12}, 256 * kKiB, &kTwoBlockOpcodes, kOpen,    &kPages},
    {"MX25L4005",   0x9F, 3, {0xC2, 0x20, 0x13}, 512 * kKiB, &kTwoBlockOpcodes, kOpen,    &kPages},
    {"MX25L8005",   0x9F, 3, {0xC2, 0x20, 0x14}, 1 * kMiB,   &kTwoBlockOpcodes, kOpen,    &kPages},
    {"MX25L1606E",  0x9F, 3, {0xC2, 0x20, 0x15}, 2 * kMiB,   &kTwoBlockOpcodes, kOpen,    &kPages},
    {"MX25L3206E",  0x9F, 3, {0xC2, 0x20, 0x16}, 4 * kMiB,   &kTwoBlockOpcodes, kOpen,    &kPages},
    {"MX25L6406E",  0x9F, 3, {0xC2, 0x20, 0x17}, 8 * kMiB,   &kTwoBlockOpcodes, kOpen,    &kPages},
    {"MX25L12835F", 0x9F, 3, {0xC2, 0x20, 0x18}, 16 * kMiB,  &k4K32K64K,        kOpen,    &kPages},
    {"GD25Q40",     0x9F, 3, {0xC8, 0x40, 0x13}, 512 * kKiB, &k4K32K64K,        kOpen,    &kPages},
    {"GD25Q80",     0x9F, 3, {0xC8, 0x40, 0x14}, 1 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"GD25Q16",     0x9F, 3, {0xC8, 0x40, 0x15}, 2 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"GD25Q32",     0x9F, 3, {0xC8, 0x40, 0x16}, 4 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"GD25Q64",     0x9F, 3, {0xC8, 0x40, 0x17}, 8 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"GD25Q128",    0x9F, 3, {0xC8, 0x40, 0x18}, 16 * kMiB,  &k4K32K64K,        kOpen,    &kPages},
    {"M25P05-A",    0x9F, 3, {0x20, 0x20, 0x10}, 64 * kKiB,  &kOnly32K,         kOpen,    &kPages},
    {"M25P10-A",    0x9F, 3, {0x20, 0x20, 0x11}, 128 * kKiB, &kOnly32K,         kOpen,    &kPages},
    {"M25P20",      0x9F, 3, {0x20, 0x20, 0x12}, 256 * kKiB, &kOnly64K,         kOpen,    &kPages},
    {"M25P40",      0x9F, 3, {0x20, 0x20, 0x13}, 512 * kKiB, &kOnly64K,         kOpen,    &kPages},
    {"M25P80",      0x9F, 3, {0x20, 0x20, 0x14}, 1 * kMiB,   &kOnly64K,         kOpen,    &kPages},
    {"M25P16",      0x9F, 3, {0x20, 0x20, 0x15}, 2 * kMiB,   &kOnly64K,         kOpen,    &kPages},
    {"N25Q032",     0x9F, 3, {0x20, 0xBA, 0x16}, 4 * kMiB,   &k4K64KOneOpcode,  kOpen,    &kPages},
    {"N25Q064",     0x9F, 3, {0x20, 0xBA, 0x17}, 8 * kMiB,   &k4K64KOneOpcode,  kOpen,    &kPages},
    {"N25Q128",     0x9F, 3, {0x20, 0xBA, 0x18}, 16 * kMiB,  &k4K64KOneOpcode,  kOpen,    &kPages},
    {"SST25VF040B", 0x9F, 3, {0xBF, 0x25, 0x8D}, 512 * kKiB, &k4K32K64K,        kBits,    &kWords},
    {"SST25VF080B", 0x9F, 3, {0xBF, 0x25, 0x8E}, 1 * kMiB,   &k4K32K64K,        kBits,    &kWords},
    {"SST25VF016B", 0x9F, 3, {0xBF, 0x25, 0x41}, 2 * kMiB,   &k4K32K64K,        kBits,    &kWords},
    {"SST25VF032B", 0x9F, 3, {0xBF, 0x25, 0x4A}, 4 * kMiB,   &k4K32K64K,        kBits,    &kWords},
    {"AT25DF041A",  0x9F, 3, {0x1F, 0x44, 0x01}, 512 * kKiB, &k4K32K64K,        kSectors, &kPages},
    {"AT25F2048",   0x15, 2, {0x1F, 0x63, 0x00}, 256 * kKiB, &kFirstGeneration, kOpen,    &kPages},
    {"AT25F4096",   0x15, 2, {0x1F, 0x64, 0x00}, 512 * kKiB, &kFirstGeneration, kOpen,    &kPages},
    {"AT25SF041",   0x9F, 3, {0x1F, 0x84, 0x01}, 512 * kKiB, &k4K32K64K,        kOpen,    &kPages},
    {"AT25SF081",   0x9F, 3, {0x1F, 0x85, 0x01}, 1 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"S25FL004A",   0x9F, 3, {0x01, 0x02, 0x12}, 512 * kKiB, &kOnly64K,         kOpen,    &kPages},
    {"S25FL008A",   0x9F, 3, {0x01, 0x02, 0x13}, 1 * kMiB,   &kOnly64K,         kOpen,    &kPages},
    {"S25FL016A",   0x9F, 3, {0x01, 0x02, 0x14}, 2 * kMiB,   &kOnly64K,         kOpen,    &kPages},
    {"S25FL204K",   0x9F, 3, {0x01, 0x40, 0x13}, 512 * kKiB, &k4K64K,           kOpen,    &kPages},
    {"EN25F40",     0x9F, 3, {0x1C, 0x31, 0x13}, 512 * kKiB, &k4K64K,           kOpen,    &kPages},
    {"EN25F80",     0x9F, 3, {0x1C, 0x31, 0x14}, 1 * kMiB,   &k4K64K,           kOpen,    &kPages},
    {"EN25Q32",     0x9F, 3, {0x1C, 0x30, 0x16}, 4 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"Pm25LV040",   0x9F, 3, {0x7F, 0x9D, 0x7E}, 512 * kKiB, &kD7Sectors,       kOpen,    &kPages},
    {"IS25LP032",   0x9F, 3, {0x9D, 0x60, 0x16}, 4 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"A25L040",     0x9F, 3, {0x37, 0x30, 0x13}, 512 * kKiB, &k4K64K,           kOpen,    &kPages},
    {"XM25QH64A",   0x9F, 3, {0x20, 0x70, 0x17}, 8 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"P25Q32SH",    0x9F, 3, {0x85, 0x60, 0x16}, 4 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"ZB25VQ16",    0x9F, 3, {0x0E, 0x40, 0x15}, 2 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
    {"BY25D40",     0x9F, 3, {0x68, 0x40, 0x13}, 512 * kKiB, &k4K32K64K,        kOpen,    &kPages},
    {"FM25Q64",     0x9F, 3, {0xA1, 0x40, 0x17}, 8 * kMiB,   &k4K32K64K,        kOpen,    &kPages},
};

static_assert(std::ranges::all_of(kSpiParts, [](const SpiPart& part) {
    return part.id_length <= part.id.size();
}));

} // namespace

std::span<const SpiPart> spi_parts() {
    return kSpiParts;
}

bool asks_for_identification(std::uint8_t opcode) {
    constexpr std::uint8_t kOpcodes[] = {0x15, 0x90, 0x9F, 0xAB};
    return std::ranges::find(kOpcodes, opcode) != std::end(kOpcodes);
}

const SpiPart* find_spi_part(std::string_view name) {
    for (const SpiPart& part : kSpiParts) {
        if (part.name == name) {
            return &part;
        }
    }
    return nullptr;
}

} // namespace emulator
