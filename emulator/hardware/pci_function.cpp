#include "pci_function.h"

namespace emulator {
namespace {

constexpr std::uint32_t kCommand = 0x04;
constexpr std::uint32_t kClassRevision = 0x08;
constexpr std::uint32_t kFirstBar = 0x10;
constexpr std::uint32_t kSubsystem = 0x2C;
constexpr std::uint32_t kInterrupt = 0x3C;

constexpr std::uint16_t kMemoryDecoding = 0x0002;
/// Memory decoding, bus mastering and the interrupt mask are the bits that can be set.
constexpr std::uint16_t kCommandWritable = 0x0406;

} // namespace

PciFunction::PciFunction(const PciIdentity& identity, const PciBars& bars)
    : identity_(identity), bars_(bars) {}

std::uint32_t PciFunction::dword(std::uint32_t offset) const {
    switch (offset) {
    case 0x00:
        return std::uint32_t{identity_.device} << 16 | identity_.vendor;
    case kCommand:
        return command_;
    case kClassRevision:
        return identity_.class_code << 8 | identity_.revision;
    case kSubsystem:
        return std::uint32_t{identity_.subsystem} << 16 | identity_.subsystem_vendor;
    case kInterrupt:
        return interrupt_line_;
    default:
        break;
    }
    if (offset >= kFirstBar && offset < kFirstBar + 4 * bars_.size()) {
        const std::size_t bar = (offset - kFirstBar) / 4;
        return bases_[bar] | bars_[bar].low_bits;
    }
    return 0;
}

std::uint32_t PciFunction::read(std::uint32_t offset, int width) const {
    const std::uint32_t value = dword(offset & ~3U) >> (8 * (offset & 3));
    return width == 4 ? value : value & ((1U << (8 * width)) - 1);
}

void PciFunction::write(std::uint32_t offset, std::uint32_t value, int width) {
    const std::uint32_t shift = 8 * (offset & 3);
    const std::uint32_t mask = (width == 4 ? 0xFFFFFFFFU : (1U << (8 * width)) - 1) << shift;
    const std::uint32_t merged = (dword(offset & ~3U) & ~mask) | ((value << shift) & mask);
    offset &= ~3U;
    if (offset == kCommand) {
        command_ = static_cast<std::uint16_t>(merged & kCommandWritable);
    } else if (offset == kInterrupt) {
        interrupt_line_ = static_cast<std::uint8_t>(merged);
    } else if (offset >= kFirstBar && offset < kFirstBar + 4 * bars_.size()) {
        const std::size_t bar = (offset - kFirstBar) / 4;
        bases_[bar] = bars_[bar].size == 0 ? 0 : merged & ~(bars_[bar].size - 1);
    }
}

PciFunction::Location PciFunction::locate(std::uint64_t address) const {
    if ((command_ & kMemoryDecoding) == 0) {
        return {};
    }
    for (std::size_t bar = 0; bar < bars_.size(); ++bar) {
        // A BAR that the function does not have has no bytes.
        const std::uint64_t offset = address - bases_[bar];
        if (offset < bars_[bar].size) {
            return {static_cast<int>(bar), static_cast<std::uint32_t>(offset)};
        }
    }
    return {};
}

} // namespace emulator
