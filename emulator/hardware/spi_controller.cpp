#include "spi_controller.h"

#include "hex.h"

#include <array>
#include <bit>
#include <span>
#include <utility>

namespace emulator {
namespace {

/// The bytes of a data register.
using Data = std::array<std::uint8_t, sizeof(std::uint32_t)>;
static_assert(std::endian::native == std::endian::little);

/// Writes the low bits of a value as hexadecimal digits that fill the text.
void put_hex(std::span<char> text, std::uint32_t value) {
    for (std::size_t i = text.size(); i-- > 0; value >>= 4) {
        text[i] = "0123456789ABCDEF"[value & 0xF];
    }
}

} // namespace

SpiController::SpiController(SpiLayout layout, std::string place, Journal& journal)
    : layout_(layout), place_(std::move(place)), journal_(&journal), line_(place_ + "  ") {}

std::uint32_t SpiController::read(std::uint32_t reg) {
    switch (reg) {
    case kCommand:
        running_ = running_ && held_;
        return running_ ? command_ | busy_bit() : command_ & ~busy_bit();
    case kAddress:
        return address_;
    case kDataOut:
        if (layout_ == SpiLayout::kWindow) {
            return data_out_;
        }
        break;
    case kDataIn:
        if (layout_ == SpiLayout::kIndexed) {
            complain("read of register 12");
            return 0;
        }
        break;
    default:
        complain("read of register " + std::to_string(reg));
        return 0;
    }
    if (running_) {
        complain("received data read before the cycle has ended");
    }
    return data_in_;
}

void SpiController::write(std::uint32_t reg, std::uint32_t value) {
    if (running_) {
        complain("register " + std::to_string(reg) + " written while a cycle runs");
        // A controller that hangs is given up by its driver; the next command replaces the old one.
        running_ = false;
    }
    switch (reg) {
    case kCommand:
        start(value);
        return;
    case kAddress:
        if (value > kMostAddress) {
            complain("address " + hex(value, 8) + " has more than 24 bits");
        }
        address_ = value & kMostAddress;
        return;
    case kDataOut:
        data_out_ = value;
        // The indexed controller has one register for both directions.
        data_in_ = layout_ == SpiLayout::kIndexed ? value : data_in_;
        return;
    case kSetUp:
        if (layout_ == SpiLayout::kIndexed && value == 0) {
            return;
        }
        break;
    default:
        break;
    }
    complain("register " + std::to_string(reg) + " written with " + hex(value, 8));
}

SpiController::Cycle SpiController::decode(std::uint32_t command) {
    if (layout_ == SpiLayout::kIndexed) {
        if ((command & 0xFF0000FF) != 0x00000030 || (command & 0x0000C000) != 0) {
            complain("command word " + hex(command, 8));
        }
        return {static_cast<std::uint8_t>(command >> 16), (command & 0x1000) != 0,
                (command & 0x2000) != 0, static_cast<std::uint8_t>((command >> 8) & 0xF)};
    }
    if ((command & 0xFFFF0009) != 0x09130001) {
        complain("command word " + hex(command, 8));
    }
    return {static_cast<std::uint8_t>(command >> 8), (command & 0x2) != 0, (command & 0x4) != 0,
            static_cast<std::uint8_t>((command >> 4) & 0xF)};
}

void SpiController::start(std::uint32_t command) {
    command_ = command;
    running_ = true;
    held_ = false;
    Cycle cycle = decode(command);
    if (cycle.bytes > kDataBytes) {
        complain("cycle of " + std::to_string(cycle.bytes) + " data bytes");
        cycle.bytes = kDataBytes;
    }
    // The shift register goes both ways: a window controller clocks its data-out register to the
    // chip while it receives; the indexed one has handed its only register to the receiver.
    const bool drives = !cycle.receive || layout_ == SpiLayout::kWindow;
    const auto out = std::bit_cast<Data>(drives ? data_out_ : 0);
    Data in{};
    const SpiTransfer transfer{cycle.opcode, cycle.address, address_,
                               std::span(out).first(cycle.bytes), std::span(in).first(cycle.bytes)};
    Operation operation = Operation::kUnknown;
    if (chip_ != nullptr) {
        operation = chip_->transfer(transfer);
        held_ = chip_->holds_controller();
    }
    if (journal_->probe() != nullptr) {
        journal_->probe()->on_spi_transfer(place_, transfer, operation, chip_.get());
    }
    const auto received = std::bit_cast<std::uint32_t>(in);
    if (cycle.receive) {
        data_in_ = received;
        data_out_ = layout_ == SpiLayout::kIndexed ? received : data_out_;
    }
    if (journal_->wants_cycles()) {
        log(cycle, operation, data_out_, received);
    }
}

void SpiController::log(Cycle cycle, Operation operation, std::uint32_t sent,
                        std::uint32_t received) {
    const bool sends = !cycle.receive || operation == Operation::kWriteStatus;
    // A log has millions of lines; all but the operation's name have columns of their own.
    std::array<char, 26> columns{};
    columns.fill(' ');
    put_hex(std::span(columns).subspan<0, 2>(), cycle.opcode);
    if (cycle.address) {
        columns[3] = '@';
        put_hex(std::span(columns).subspan<4, 6>(), address_);
    }
    if (cycle.bytes != 0) {
        columns[11] = sends ? '>' : '<';
    }
    for (std::size_t i = 0; i < cycle.bytes; ++i) {
        put_hex(std::span(columns).subspan(13 + 3 * i, 2), (sends ? sent : received) >> (8 * i));
    }
    line_.resize(place_.size() + 2);
    line_.append(columns.data(), columns.size()).append(operation_name(operation));
    journal_->cycle(line_);
}

void SpiController::complain(std::string_view what) {
    journal_->misuse(place_ + ": " + std::string(what));
}

} // namespace emulator
