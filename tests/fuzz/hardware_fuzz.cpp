// Hardware that answers anything. The input has the adapter's kind, a command's number and the chip
// select, a line with the base address registers, and answers to register reads. After them answers
// go on in a fixed mixture, in which every wait must end.
#include "bench.h"

#include <array>

namespace {

using Bridge = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL;
using Width = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH;

constexpr std::uint32_t kFirst = 0x1FF0; ///< byte that a command may touch
constexpr std::uint32_t kEnd = kFirst + fuzz::Bench::kImage.size();

struct Command {
    const char* line;
    bool range; ///< may erase and program the units of its range
    bool wipe;  ///< may erase the chip
};
constexpr Command kCommands[] = {
    {"-l",                                false, false},
    {"-wbf image.bin -addr 0x1ff0",       true,  false},
    {"-rfb dump.bin -addr 0x1ff0 -sz 40", false, false},
    {"-se -addr 0x1ff0 -sz 40",           true,  false},
    {"-wpa",                              false, true },
    {"-phytest -lback -p 1 -t 1",         false, false},
};

/// Where an interface kind has its registers, and how its SPI command word is built: the bit after
/// `address` says that data is received.
struct Kind {
    std::size_t bar;
    std::uint32_t size;
    std::uint32_t spi; ///< registers for command and address; the indexed kind has them by index
    int opcode;
    std::uint32_t address;
};
constexpr Kind kIndexed = {5, 0x1000, 0, 16, 0x1000};
constexpr Kind kWithNor = {2, 0x20000, 0xC800, 8, 2};
constexpr Kind kWindow = {0, 0x20000, 0x1C800, 8, 2};

/// What registers often hold: idle, busy, enabled, nothing there, identifications.
constexpr std::array<std::uint32_t, 16> kUsual = {
    0,       0xFFFFFFFF, 1,        2,    3,    0x10,   0x30,     0x20000,
    0x20001, 0x1020C2,   0x00441F, 0xEC, 0xC2, 0x257E, 0x8D25BF, 0x5A5A5A5A};

/// One run's hardware.
struct Hardware {
    const emulator::VirtualClock& clock;
    decltype(Bridge{}.Pci.Read) config_read;
    const Kind& kind;
    const Command& command;
    fuzz::Input answers;
    std::array<std::uint32_t, 6> bars{};
    std::uint32_t mixture = 1;
    std::uint32_t index = 0;
    std::uint32_t spi_address = 0;
    std::uint32_t nor_address = 0;
    std::uint32_t nor_data = 0;

    /// Where in its BAR an access goes; the NOR window counts as behind all. The bus has 32 bits.
    std::uint32_t offset(std::uint64_t address) {
        EXPECT_LT(clock.now_ns(), 120'000'000'000U) << "a wait for minutes";
        const auto from = [&](std::size_t bar) {
            return static_cast<std::uint32_t>(address) - (bars[bar] & ~0xFU);
        };
        const bool in_window = from(kind.bar) >= kind.size;
        EXPECT_TRUE(!in_window || (&kind == &kWithNor && from(0) < 0x2000)) << "beside the BARs";
        return in_window ? kind.size : from(kind.bar);
    }

    /// Follows the cycles that a write starts on the flash bus.
    void write(std::uint32_t at, std::uint32_t value) {
        const bool indexed = &kind == &kIndexed;
        if (indexed && at == 0xA8) {
            index = value & 0xFF;
        }
        const std::uint32_t spi = !indexed ? at - kind.spi : at == 0xAC ? index : kind.size;
        if (spi == 4) {
            spi_address = value;
        } else if (spi == 0) {
            spi_cycle(value >> kind.opcode & 0xFF, (value & kind.address) != 0,
                      (value & kind.address << 1) != 0);
        } else if (at == 0xC930) {
            nor_address = value;
        } else if (at == 0xC93C) {
            nor_data = value;
        } else if (&kind == &kWithNor && at == 0xC940 && value >> 24 == 6) {
            EXPECT_TRUE(nor_data == 0x10 ? command.wipe : command.range && nor_address * 2 < kEnd)
                << "an erase that nobody asked for at " << nor_address * 2;
        }
    }

    void spi_cycle(std::uint32_t opcode, bool address, bool receive) const {
        const bool unprotects = opcode == 0x39 || opcode == 0x36;
        const bool erases_all = opcode == 0xC7 || opcode == 0x60 || opcode == 0x62;
        const bool in_range = spi_address < kEnd && (opcode != 0x02 || spi_address >= kFirst);
        EXPECT_TRUE(receive || (address ? unprotects || (command.range && in_range)
                                        : !erases_all || command.wipe))
            << "nobody asked for " << std::hex << opcode << " at " << spi_address;
    }
};
Hardware* hardware;

EFI_STATUS EFIAPI config_read(Bridge* bridge, Width width, UINT64 address, UINTN count,
                              VOID* buffer) {
    const EFI_STATUS status = hardware->config_read(bridge, width, address, count, buffer);
    const std::size_t at = (address & 0xFF) - 0x10;
    if (at < sizeof hardware->bars && width == EfiPciIoWidthUint16) {
        std::memcpy(buffer, reinterpret_cast<const char*>(hardware->bars.data()) + at, 2);
    }
    return status;
}

EFI_STATUS EFIAPI memory_read(Bridge* /*bridge*/, Width width, UINT64 address, UINTN /*count*/,
                              VOID* buffer) {
    constexpr std::uint8_t kFails = 0xE0;
    constexpr std::uint8_t kAny = 0xF0;
    fuzz::Input& answers = hardware->answers;
    hardware->offset(address);
    hardware->mixture = hardware->mixture * 1664525 + 1013904223;
    const bool over = answers.empty();
    const auto choice =
        over ? static_cast<std::uint8_t>(hardware->mixture >> 28) : answers.take<std::uint8_t>();
    const std::uint32_t answer =
        choice >= kAny ? answers.take<std::uint32_t>() : kUsual[choice & 0xF];
    std::memcpy(buffer, &answer, width == EfiPciIoWidthUint16 ? 2 : 4);
    return (choice & 0xF0) == kFails ? EFI_DEVICE_ERROR : EFI_SUCCESS;
}

EFI_STATUS EFIAPI memory_write(Bridge* /*bridge*/, Width /*width*/, UINT64 address, UINTN /*count*/,
                               VOID* buffer) {
    std::uint32_t value = 0;
    std::memcpy(&value, buffer, sizeof value);
    hardware->write(hardware->offset(address), value);
    return EFI_SUCCESS;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const char digit = input.take<char>();
    const std::size_t number = input.take<std::uint8_t>() % std::size(kCommands);
    const char slot = input.take<char>();
    const std::string_view bars = input.line();
    fuzz::Bench bench(digit);
    auto& bridge = bench.table<Bridge>(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_GUID);
    const Kind& kind = digit == '1' ? kIndexed : digit == '2' ? kWithNor : kWindow;
    Hardware now{bench.clock(), bridge.Pci.Read, kind, kCommands[number], input};
    std::memcpy(now.bars.data(), bars.data(), std::min(bars.size(), sizeof now.bars));
    hardware = &now;
    bridge.Pci.Read = config_read;
    bridge.Mem.Read = memory_read;
    bridge.Mem.Write = memory_write;
    const std::string csid = slot == '0' || slot == '1' ? std::string(" -csid ") + slot : "";
    bench.run(now.command.line + csid + " -y" + bench.only());
    return 0;
}
