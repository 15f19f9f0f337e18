// Hardware that answers anything. The input has the adapter's kind, a command's number and the chip
// select, a line with the base address registers, and answers to register reads. After them answers
// go on in a fixed mixture, in which every wait must end.
#include "bench.h"

#include <array>

namespace {

using Bridge = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL;
using Width = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH;

constexpr const char* kCommands[] = {
    "-l",
    "-wbf image.bin -addr 0x1ff0",
    "-rfb dump.bin -addr 0x1ff0 -sz 40",
    "-se -addr 0x1ff0 -sz 40",
    "-wpa",
    "-phytest -lback -p 1 -t 1",
};

/// Where an interface kind has its registers.
struct Kind {
    std::size_t bar;
    std::uint32_t size;
};
constexpr Kind kIndexed = {5, 0x1000};
constexpr Kind kWithNor = {2, 0x20000};
constexpr Kind kWindow = {0, 0x20000};

/// What registers often hold: idle, busy, enabled, nothing there, identifications.
constexpr std::array<std::uint32_t, 16> kUsual = {
    0,       0xFFFFFFFF, 1,        2,    3,    0x10,   0x30,     0x20000,
    0x20001, 0x1020C2,   0x00441F, 0xEC, 0xC2, 0x257E, 0x8D25BF, 0x5A5A5A5A};

/// One run's hardware.
struct Hardware {
    const emulator::VirtualClock& clock;
    decltype(Bridge{}.Pci.Read) config_read;
    const Kind& kind;
    fuzz::Input answers;
    std::array<std::uint32_t, 6> bars{};
    std::uint32_t mixture = 1;

    /// An access goes to a BAR. The bus has 32 bits.
    void expect_place(std::uint64_t address) {
        EXPECT_LT(clock.now_ns(), 120'000'000'000U) << "a wait for minutes";
        const auto from = [&](std::size_t bar) {
            return static_cast<std::uint32_t>(address) - (bars[bar] & ~0xFU);
        };
        const bool in_nor_window = &kind == &kWithNor && from(0) < 0x2000;
        EXPECT_TRUE(from(kind.bar) < kind.size || in_nor_window) << "beside the BARs";
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
    hardware->expect_place(address);
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
                               VOID* /*buffer*/) {
    hardware->expect_place(address);
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
    Hardware now{bench.clock(), bridge.Pci.Read, kind, input};
    std::memcpy(now.bars.data(), bars.data(), std::min(bars.size(), sizeof now.bars));
    hardware = &now;
    bridge.Pci.Read = config_read;
    bridge.Mem.Read = memory_read;
    bridge.Mem.Write = memory_write;
    const std::string csid = slot == '0' || slot == '1' ? std::string(" -csid ") + slot : "";
    bench.run(kCommands[number] + csid + " -y" + bench.only());
    return 0;
}
