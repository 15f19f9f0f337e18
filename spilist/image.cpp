#include "image.h"

#include <algorithm>
#include <cstring>

namespace spilist {
namespace {

std::uint8_t sum_of(std::span<const std::uint8_t> bytes) {
    std::uint8_t sum = 0;
    for (const std::uint8_t byte : bytes) {
        sum = static_cast<std::uint8_t>(sum + byte);
    }
    return sum;
}

/// Reads one file. What a short one lacks is not complained about field by field.
class Decoder {
  public:
    explicit Decoder(std::span<const std::uint8_t> file) : file_(file) {
        std::ranges::copy(file.first(std::min(file.size(), sizeof image_)),
                          reinterpret_cast<std::uint8_t*>(&image_));
    }

    ChipList run() {
        list_.version_hi = image_.version_hi;
        list_.version_lo = image_.version_lo;
        list_.is_list = is_list();
        if (list_.is_list) {
            check_header();
            read_opcodes();
            read_records();
        }
        return list_;
    }

  private:
    bool holds(std::size_t bytes) const { return file_.size() >= bytes; }

    void add(std::string field, std::string what, Effect effect = Effect::kRejected) {
        list_.findings.push_back({"list", std::move(field), std::move(what), effect});
    }

    /// Bytes that do not start as a list does mean nothing where a list has its fields.
    bool is_list() {
        if (holds(sizeof image_.magic) && image_.magic != QFU_CHIP_LIST_MAGIC) {
            add("magic", "is not \"LUFQ\", so this is no chip list");
            return false;
        }
        if (!holds(sizeof image_)) {
            add("length", "is " + std::to_string(file_.size()) + " bytes; a list has " +
                              std::to_string(sizeof image_));
        }
        return holds(offsetof(QFU_CHIP_LIST, records));
    }

    void check_header() {
        if (image_.marker != QFU_CHIP_LIST_MARKER) {
            add("marker", "is " + hex_byte(image_.marker) + ", must be FF");
        }
        if (image_.body_size != QFU_CHIP_LIST_BODY_SIZE) {
            add("body_size", "is " + std::to_string(image_.body_size) + ", must be " +
                                 std::to_string(QFU_CHIP_LIST_BODY_SIZE));
        }
        if (image_.version_hi == 0 || (image_.version_hi == 1 && image_.version_lo == 0)) {
            add("version", std::to_string(image_.version_hi) + "." +
                               std::to_string(image_.version_lo) + " is too old; 1.1 is the first");
        }
        if (holds(sizeof image_)) {
            const std::uint8_t sum = sum_of(file_.first(sizeof image_));
            if (sum != 0) {
                add("checksum", "the bytes add up to " + hex_byte(sum) + ", not to 00");
            }
        }
    }

    void read_opcodes() {
        for (const std::uint32_t word : image_.id_opcodes) {
            if (word == 0) {
                break;
            }
            list_.id_opcodes.push_back(word);
        }
    }

    void read_records() {
        const std::span records(image_.records);
        std::size_t count = 0;
        while (count < records.size() && records[count].whole_size != 0 &&
               holds(offsetof(QFU_CHIP_LIST, records) + (count + 1) * sizeof(QFU_CHIP_ENTRY))) {
            list_.chips.push_back({records[count++], {}, {}});
        }
        const auto behind = std::ranges::count_if(
            records.subspan(count), [](const auto& record) { return record.whole_size != 0; });
        if (behind != 0 && records[count].whole_size == 0) {
            add("records",
                "slot " + std::to_string(count) +
                    " has size 0, which ends the list; not read behind it: " +
                    std::to_string(behind),
                Effect::kMisused);
        }
    }

    std::span<const std::uint8_t> file_;
    QFU_CHIP_LIST image_{};
    ChipList list_{};
};

} // namespace

std::vector<std::uint8_t> encode(const ChipList& list) {
    QFU_CHIP_LIST file{};
    file.magic = QFU_CHIP_LIST_MAGIC;
    file.marker = QFU_CHIP_LIST_MARKER;
    file.body_size = QFU_CHIP_LIST_BODY_SIZE;
    file.version_hi = list.version_hi;
    file.version_lo = list.version_lo;
    std::ranges::copy(list.id_opcodes, file.id_opcodes.begin());
    std::ranges::transform(list.chips, file.records.begin(), &Chip::entry);

    std::vector<std::uint8_t> bytes(sizeof file);
    std::memcpy(bytes.data(), &file, sizeof file);
    // A byte that nobody reads brings the sum of all bytes to 0.
    bytes[offsetof(QFU_CHIP_LIST, reserved_5)] = static_cast<std::uint8_t>(-sum_of(bytes));
    return bytes;
}

ChipList decode(std::span<const std::uint8_t> file) {
    return Decoder(file).run();
}

} // namespace spilist
