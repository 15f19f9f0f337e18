#include "image.h"

#include <algorithm>
#include <cstring>

namespace chiplist {
namespace {

std::uint8_t sum_of(std::span<const std::uint8_t> bytes) {
    std::uint8_t sum = 0;
    for (const std::uint8_t byte : bytes) {
        sum = static_cast<std::uint8_t>(sum + byte);
    }
    return sum;
}

/// Reads one file. Bytes that a short one lacks are 0 and not complained about one by one.
class Decoder {
  public:
    explicit Decoder(std::span<const std::uint8_t> file) : file_(file) {
        std::ranges::copy(file.first(std::min(file.size(), sizeof image_)),
                          reinterpret_cast<std::uint8_t*>(&image_));
    }

    Decoded run() {
        check_header();
        result_.list = {image_.version_hi, image_.version_lo, {}, {}};
        read_opcodes();
        read_records();
        return result_;
    }

  private:
    bool holds(std::size_t bytes) const { return file_.size() >= bytes; }

    void add(std::string field, std::string what, Effect effect = Effect::kRejected) {
        result_.findings.push_back({"list", std::move(field), std::move(what), effect});
    }

    void check_header() {
        if (!holds(sizeof image_)) {
            add("length", std::to_string(file_.size()) + " bytes are less than the " +
                              std::to_string(sizeof image_) + " of a list");
        }
        if (holds(offsetof(QFU_CHIP_LIST, marker)) && image_.magic != QFU_CHIP_LIST_MAGIC) {
            add("magic", "is not \"LUFQ\"");
        }
        if (holds(offsetof(QFU_CHIP_LIST, reserved_5)) && image_.marker != QFU_CHIP_LIST_MARKER) {
            add("marker", hex_byte(image_.marker) + " is not FF");
        }
        if (holds(offsetof(QFU_CHIP_LIST, reserved_8)) &&
            image_.body_size != QFU_CHIP_LIST_BODY_SIZE) {
            add("body_size", std::to_string(image_.body_size) + " is not " +
                                 std::to_string(QFU_CHIP_LIST_BODY_SIZE));
        }
        if (holds(offsetof(QFU_CHIP_LIST, reserved_12)) &&
            (image_.version_hi == 0 || (image_.version_hi == 1 && image_.version_lo == 0))) {
            add("version", std::to_string(image_.version_hi) + "." +
                               std::to_string(image_.version_lo) + " is older than 1.1");
        }
        if (holds(sizeof image_)) {
            const std::uint8_t sum = sum_of(file_.first(sizeof image_));
            if (sum != 0) {
                add("checksum", "the bytes add up to " + hex_byte(sum) + ", not to 00");
            }
        }
    }

    void read_opcodes() {
        if (!holds(offsetof(QFU_CHIP_LIST, records))) {
            return;
        }
        for (const std::uint32_t word : image_.id_opcodes) {
            if (word == 0) {
                break;
            }
            result_.list.id_opcodes.push_back(word);
        }
    }

    void read_records() {
        const std::span records(image_.records);
        std::size_t count = 0;
        while (count < records.size() && records[count].whole_size != 0 &&
               holds(offsetof(QFU_CHIP_LIST, records) + (count + 1) * sizeof(QFU_CHIP_ENTRY))) {
            result_.list.chips.push_back({records[count++], {}, {}});
        }
        const auto behind = std::ranges::count_if(
            records.subspan(count), [](const auto& record) { return record.whole_size != 0; });
        if (behind != 0 && records[count].whole_size == 0) {
            add("records",
                "the size 0 in slot " + std::to_string(count) + " ends the list before " +
                    std::to_string(behind) + " more",
                Effect::kMisused);
        }
    }

    std::span<const std::uint8_t> file_;
    QFU_CHIP_LIST image_{};
    Decoded result_;
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

Decoded decode(std::span<const std::uint8_t> file) {
    return Decoder(file).run();
}

} // namespace chiplist
