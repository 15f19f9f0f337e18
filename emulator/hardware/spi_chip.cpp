#include "spi_chip.h"

#include "hex.h"

#include <algorithm>
#include <utility>

namespace emulator {
namespace {

constexpr std::uint8_t kWordsGoOn = 0x40;
/// What parts with a protection register a sector tell in place of block protection bits.
constexpr std::uint8_t kSomeSectorsProtected = 0x04;
constexpr std::uint8_t kAllSectorsProtected = 0x0C;
/// Bits that a status write can change.
constexpr std::uint8_t kStatusWritable = 0xBC;

constexpr std::array<std::pair<std::uint8_t, Operation>, 6> kCommonCommands = {
    {
     {0x06, Operation::kWriteEnable},
     {0x04, Operation::kWriteDisable},
     {0x05, Operation::kReadStatus},
     {0x01, Operation::kWriteStatus},
     {0x03, Operation::kRead},
     {0x02, Operation::kProgram},
     }
};

/// First bytes of the protection sectors of parts with a register for each.
constexpr std::array<std::uint32_t, 11> kProtectionSectors = {
    0,          64 * 1024,  128 * 1024, 192 * 1024, 256 * 1024, 320 * 1024,
    384 * 1024, 448 * 1024, 480 * 1024, 488 * 1024, 496 * 1024};

std::size_t protection_sector(std::uint32_t address) {
    const auto* above = std::ranges::upper_bound(kProtectionSectors, address);
    return static_cast<std::size_t>(above - kProtectionSectors.begin()) - 1;
}

bool takes_address(Operation operation) {
    switch (operation) {
    case Operation::kRead:
    case Operation::kProgram:
    case Operation::kProgramWord:
    case Operation::kSectorErase:
    case Operation::kBlockErase:
    case Operation::kQueryProtection:
    case Operation::kProtectSector:
    case Operation::kUnprotectSector:
        return true;
    default:
        return false;
    }
}

bool takes_no_data(Operation operation) {
    switch (operation) {
    case Operation::kWriteEnable:
    case Operation::kWriteDisable:
    case Operation::kStatusEnable:
    case Operation::kSectorErase:
    case Operation::kBlockErase:
    case Operation::kChipErase:
    case Operation::kUnprotectSector:
        return true;
    default:
        return false;
    }
}

/// While words are programmed, a chip takes the next one, looks at its status, or ends it.
bool goes_with_words(Operation operation) {
    return operation == Operation::kProgramWord || operation == Operation::kReadStatus ||
           operation == Operation::kWriteDisable;
}

} // namespace

SpiChip::SpiChip(const SpiPart& part, std::string place, const Clock& clock, Journal& journal,
                 BusyTimes times, std::span<std::uint8_t> kept)
    : part_(&part), place_(std::move(place)), clock_(&clock), journal_(&journal), times_(times),
      own_(kept.empty() ? part.size : 0, 0xFF), contents_(kept.empty() ? std::span(own_) : kept) {
    for (const auto& [opcode, operation] : kCommonCommands) {
        know(opcode, operation);
    }
    know(part.id_opcode, Operation::kReadId);
    for (const EraseCommand& erase : part.erases->units) {
        if (erase.unit != 0) {
            const bool smallest = &erase == part.erases->units.data();
            know(erase.opcode, smallest ? Operation::kSectorErase : Operation::kBlockErase,
                 erase.unit);
        }
    }
    for (const std::uint8_t opcode : part.erases->whole_chip) {
        if (opcode != 0) {
            know(opcode, Operation::kChipErase, part.size);
        }
    }
    if (part.writes->word_program != 0) {
        know(part.writes->word_program, Operation::kProgramWord);
    }
    if (part.writes->status_enable != 0) {
        know(part.writes->status_enable, Operation::kStatusEnable);
    }
    if (part.protection == Protection::kSectorRegisters) {
        know(0x36, Operation::kProtectSector);
        know(0x39, Operation::kUnprotectSector);
        know(0x3C, Operation::kQueryProtection);
        sector_protected_.resize(kProtectionSectors.size());
    }
    power_up();
}

void SpiChip::power_up() {
    switch (part_->protection) {
    case Protection::kOpenAtPowerUp:
        status_ &= kStatusWritable; // these parts keep their protection bits
        break;
    case Protection::kBlockBitsSet:
        status_ = kBlockProtection;
        break;
    case Protection::kSectorRegisters:
        status_ = 0;
        break;
    }
    protect_all_sectors();
    next_word_.reset();
    status_enabled_ = false;
    busy_until_ns_ = 0;
    stuck_busy_ = false;
    holds_controller_ = false;
}

void SpiChip::know(std::uint8_t opcode, Operation operation, std::uint32_t unit) {
    commands_[opcode] = {operation, takes_address(operation), takes_no_data(operation), unit};
}

bool SpiChip::wants_address(const Command& command) const {
    return command.takes_address && !(command.operation == Operation::kProgramWord && next_word_);
}

Operation SpiChip::clock(std::span<const std::uint8_t> sent, std::span<std::uint8_t> received) {
    constexpr std::size_t kWithAddress = 4;
    const bool has_address = sent.size() >= kWithAddress && wants_address(commands_[sent[0]]);
    const std::uint32_t address =
        has_address ? std::uint32_t{sent[1]} << 16 | std::uint32_t{sent[2]} << 8 | sent[3] : 0;
    const auto data = sent.subspan(has_address ? kWithAddress : 1);
    std::vector<std::uint8_t> mosi(data.begin(), data.end());
    mosi.resize(data.size() + received.size());
    std::vector<std::uint8_t> miso(mosi.size());
    const Operation operation = transfer({sent[0], has_address, address, mosi, miso});
    std::ranges::copy(std::span(miso).last(received.size()), received.begin());
    return operation;
}

Operation SpiChip::transfer(const SpiTransfer& transfer) {
    const Command& command = commands_[transfer.opcode];
    const Operation operation = command.operation;
    ++counts_[static_cast<std::size_t>(operation)];
    if (!faults_.empty()) {
        faults_.begin(operation, transfer.has_address ? transfer.address : 0,
                      command.takes_no_data ? command.unit : transfer.miso.size());
    }
    if (operation != Operation::kWriteStatus) {
        status_enabled_ = false; // it holds for the next command alone
    }
    holds_controller_ = faults_.striking(FaultKind::kControllerBusy).has_value();
    if (operation == Operation::kUnknown) {
        // Whoever identifies a chip has to try; one that does not know the opcode stays silent.
        if (!asks_for_identification(transfer.opcode)) {
            complain({"opcode ", hex(transfer.opcode, 2), " is none that the chip knows"});
        }
    } else if (transfer.has_address != wants_address(command)) {
        complain({operation_name(operation),
                  transfer.has_address ? " with an address" : " without an address"});
    } else if (command.takes_no_data && !transfer.mosi.empty()) {
        complain({operation_name(operation), " with data behind it"});
    } else if (operation != Operation::kReadStatus && is_busy()) {
        complain({operation_name(operation), " while the chip is busy"});
    } else if (next_word_ && !goes_with_words(operation)) {
        complain({operation_name(operation), " between words that are programmed"});
    } else if (!faults_.striking(FaultKind::kIgnored)) {
        carry_out(command, transfer);
        stuck_busy_ = stuck_busy_ || faults_.striking(FaultKind::kNeverReady).has_value();
    }
    return operation;
}

bool SpiChip::is_busy() {
    if (busy_until_ns_ != 0 && !stuck_busy_ && clock_->now_ns() >= busy_until_ns_) {
        busy_until_ns_ = 0;
        be_ready();
    }
    return stuck_busy_ || (status_ & kBusy) != 0;
}

std::uint8_t SpiChip::status() {
    const std::uint8_t busy = is_busy() ? kBusy : 0;
    return static_cast<std::uint8_t>(status_ | busy | sector_protection());
}

std::uint8_t SpiChip::sector_protection() const {
    const auto count = std::ranges::count(sector_protected_, true);
    if (count == 0) {
        return 0;
    }
    return std::cmp_equal(count, sector_protected_.size()) ? kAllSectorsProtected
                                                           : kSomeSectorsProtected;
}

void SpiChip::be_ready() {
    // The latch stays set from word to word.
    const std::uint8_t over = next_word_ ? kBusy : kBusy | kWriteEnabled;
    status_ = static_cast<std::uint8_t>(status_ & ~over);
}

void SpiChip::end_words() {
    next_word_.reset();
    status_ = static_cast<std::uint8_t>(status_ & ~kWordsGoOn);
}

void SpiChip::carry_out(const Command& command, const SpiTransfer& transfer) {
    switch (command.operation) {
    case Operation::kReadId:
        answer(transfer, std::span(part_->id).first(part_->id_length));
        break;
    case Operation::kWriteEnable:
        status_ |= kWriteEnabled;
        break;
    case Operation::kWriteDisable:
        end_words();
        be_ready();
        break;
    case Operation::kStatusEnable:
        status_enabled_ = true;
        break;
    case Operation::kReadStatus: {
        const std::array<std::uint8_t, 1> status_byte = {status()};
        answer(transfer, status_byte);
        break;
    }
    case Operation::kWriteStatus:
        write_status(transfer);
        break;
    case Operation::kRead:
        read(transfer);
        break;
    case Operation::kProgram:
        program(transfer);
        break;
    case Operation::kProgramWord:
        program_word(transfer);
        break;
    case Operation::kSectorErase:
    case Operation::kBlockErase:
        erase(offset(transfer.address, operation_name(command.operation)) & ~(command.unit - 1),
              command.unit, operation_name(command.operation));
        break;
    case Operation::kChipErase:
        erase(0, command.unit, operation_name(command.operation));
        break;
    case Operation::kQueryProtection:
        query_protection(transfer);
        break;
    case Operation::kProtectSector:
    case Operation::kUnprotectSector:
        protect_sector(transfer.address, command.operation == Operation::kProtectSector);
        break;
    default:
        break;
    }
}

bool SpiChip::write_enabled(std::string_view what) {
    if ((status_ & kWriteEnabled) == 0) {
        complain({what, " without write enable"});
        return false;
    }
    return true;
}

bool SpiChip::is_protected(std::uint32_t address, std::uint32_t length) const {
    // Which blocks the bits name differs from part to part; any of them set protects all here.
    if ((status_ & kBlockProtection) != 0) {
        return true;
    }
    if (sector_protected_.empty()) {
        return false;
    }
    const std::size_t last = protection_sector(address + length - 1);
    for (std::size_t s = protection_sector(address); s <= last; ++s) {
        if (sector_protected_[s]) {
            return true;
        }
    }
    return false;
}

std::uint64_t SpiChip::be_busy(std::uint64_t microseconds) {
    const std::uint64_t end = clock_->now_ns() + microseconds * 1000;
    if (microseconds == 0) {
        be_ready();
    } else {
        status_ |= kBusy;
        busy_until_ns_ = end;
    }
    return end;
}

void SpiChip::answer(const SpiTransfer& transfer, std::span<const std::uint8_t> bytes) const {
    if (faults_.striking(FaultKind::kNoAnswer)) {
        return;
    }
    const std::uint8_t wrong = faults_.striking(FaultKind::kWrongData).value_or(0);
    std::size_t next = 0;
    for (std::uint8_t& byte : transfer.miso) {
        byte = static_cast<std::uint8_t>(bytes[next] ^ wrong);
        next = next + 1 < bytes.size() ? next + 1 : 0;
    }
}

void SpiChip::read(const SpiTransfer& transfer) {
    const std::uint32_t start = offset(transfer.address, "read");
    const std::size_t before_end = contents_.size() - start;
    const std::size_t count = transfer.miso.size();
    if (count <= before_end) {
        answer(transfer, contents_.subspan(start, std::max<std::size_t>(count, 1)));
        return;
    }
    // Reading goes on at the start of the chip.
    std::vector<std::uint8_t> bytes(contents_.end() - static_cast<std::ptrdiff_t>(before_end),
                                    contents_.end());
    bytes.insert(bytes.end(), contents_.begin(), contents_.end());
    answer(transfer, bytes);
}

void SpiChip::program(const SpiTransfer& transfer) {
    if (!write_enabled("program")) {
        return;
    }
    const std::uint32_t start = offset(transfer.address, "program");
    if (transfer.mosi.empty()) {
        complain({"program without data"});
        return;
    }
    const std::uint32_t page = part_->writes->page;
    std::span<const std::uint8_t> data = transfer.mosi;
    if (page == 1 && data.size() > 1) {
        complain({"program of ", std::to_string(data.size()), " bytes; the chip takes one"});
        data = data.first(1);
    }
    if (!may_change(start, static_cast<std::uint32_t>(data.size()), "program")) {
        return;
    }
    change_.start(contents_, be_busy(times_.program_us));
    for (std::size_t i = 0; i < data.size(); ++i) {
        // The address wraps inside its page.
        program_byte(std::size_t{start} / page * page + (start + i) % page, data[i]);
    }
}

void SpiChip::program_word(const SpiTransfer& transfer) {
    constexpr std::uint32_t kWord = 2;
    if (transfer.mosi.size() != kWord) {
        complain({"program word with ", std::to_string(transfer.mosi.size()), " bytes"});
        return;
    }
    if (!write_enabled("program word")) {
        return;
    }
    const std::uint32_t start = next_word_ ? *next_word_ : offset(transfer.address, "program word");
    if (start % kWord != 0) {
        complain({"program word at ", hex(start, 6), ", an odd address"});
    }
    const std::uint32_t at = start / kWord * kWord; // the lowest address bit is ignored
    if (!may_change(at, kWord, "program word")) {
        return;
    }
    next_word_ = at + kWord;
    status_ |= kWordsGoOn;
    if (*next_word_ == part_->size) {
        end_words();
    }
    change_.start(contents_, be_busy(times_.program_us));
    program_byte(at, transfer.mosi[0]);
    program_byte(at + 1, transfer.mosi[1]);
}

bool SpiChip::may_change(std::uint32_t address, std::uint32_t length, std::string_view what) {
    if (is_protected(address, length)) {
        complain({what, " at ", hex(address, 6), ", which is protected"});
        be_busy(0);
        return false;
    }
    return true;
}

void SpiChip::program_byte(std::size_t at, std::uint8_t byte) {
    if (faults_.striking(FaultKind::kNotStored)) {
        return;
    }
    const std::uint8_t stuck = faults_.striking(FaultKind::kStuckBits).value_or(0);
    const std::uint8_t old = contents_[at];
    if ((byte & ~old) != 0) {
        complain(
            {"program of ", hex(byte, 2), " over ", hex(old, 2), " at ", hex(at, 6), " sets bits"});
    }
    change_.changes_byte(at, old);
    const auto programmed = static_cast<std::uint8_t>(old & byte);
    contents_[at] = static_cast<std::uint8_t>((programmed & ~stuck) | (old & stuck));
}

void SpiChip::erase(std::uint32_t address, std::uint32_t unit, std::string_view what) {
    if (!write_enabled(what)) {
        return;
    }
    if (!may_change(address, unit, what)) {
        return;
    }
    change_.start(contents_, be_busy(times_.erase_us(unit)));
    if (!faults_.striking(FaultKind::kNotStored)) {
        const std::uint8_t stuck = faults_.striking(FaultKind::kStuckBits).value_or(0);
        change_.erases(address, unit, stuck);
        for (std::uint32_t at = address; at < address + unit; ++at) {
            contents_[at] = static_cast<std::uint8_t>(contents_[at] | ~stuck);
        }
    }
}

void SpiChip::write_status(const SpiTransfer& transfer) {
    if (!std::exchange(status_enabled_, false) && !write_enabled("write status")) {
        return;
    }
    if (transfer.mosi.empty()) {
        complain({"write status without data"});
        return;
    }
    change_.start(std::span(&status_, 1), be_busy(times_.write_status_us));
    if (!faults_.striking(FaultKind::kNotStored)) {
        const std::uint8_t value = transfer.mosi[0];
        change_.changes_byte(0, status_);
        if (sector_protected_.empty()) {
            status_ =
                static_cast<std::uint8_t>((status_ & ~kStatusWritable) | (value & kStatusWritable));
        } else if ((value & kBlockProtection) == 0) {
            sector_protected_.assign(sector_protected_.size(), false);
        } else if ((value & kBlockProtection) == kBlockProtection) {
            sector_protected_.assign(sector_protected_.size(), true);
        }
    }
}

void SpiChip::query_protection(const SpiTransfer& transfer) {
    const std::array<std::uint8_t, 1> set = {0xFF};
    const std::array<std::uint8_t, 1> clear = {0x00};
    const bool is_set = sector_protected_[protection_sector(transfer.address)];
    answer(transfer, is_set ? set : clear);
}

void SpiChip::protect_sector(std::uint32_t address, bool protect) {
    if (!write_enabled(protect ? "protect sector" : "unprotect sector")) {
        return;
    }
    if (!faults_.striking(FaultKind::kNotStored)) {
        sector_protected_[protection_sector(address)] = protect;
    }
    be_busy(0);
}

std::uint32_t SpiChip::offset(std::uint32_t address, std::string_view what) {
    if (address >= part_->size) {
        complain({what, " at ", hex(address, 6), ", past the end of the chip"});
    }
    return address & (part_->size - 1); // sizes are powers of two; address bits above are ignored
}

void SpiChip::complain(std::initializer_list<std::string_view> words) {
    journal_->misuse(place_, words);
}

} // namespace emulator
