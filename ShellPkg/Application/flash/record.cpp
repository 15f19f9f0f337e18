#include "record.h"

#include "file_name.h"
#include "qfu/platform/clock.h"

namespace flash {
namespace {

/// What a text file looks like. "%" stands for a hexadecimal number, "@" for bytes of two digits
/// each, "*" for the rest of a line.
constexpr char PATTERN[] = "qfu-backup 1\n"
                           "adapter *\n"
                           "place %:%.0\n"
                           "model %:%\n"
                           "chip @\n"
                           "chip-select %\n"
                           "address 0x%\n"
                           "size 0x%\n"
                           "sha256 @\n"
                           "date *\n"
                           "unstable *\n";

/// What stands for the places of the pattern.
struct Found {
    std::array<std::uint32_t, 7> numbers;
    std::array<std::uint8_t, 36> bytes; ///< up to 4 of the chip, then 32 of the sum
    std::size_t chip_bytes;
};

/// The value of a digit; 16 for everything else.
std::uint32_t digit_at(const char* text) {
    return *text >= '0' && *text <= '9'   ? static_cast<std::uint32_t>(*text - '0')
           : *text >= 'a' && *text <= 'f' ? static_cast<std::uint32_t>(*text - 'a' + 10)
                                          : 16;
}

/// Takes hexadecimal digits, one at least, from the front of `text`.
bool take_number(const char*& text, std::uint32_t& number) {
    const char* first = text;
    for (number = 0; digit_at(text) < 16 && text < first + 8; ++text) {
        number = number << 4 | digit_at(text);
    }
    return text != first;
}

/// Compares a text that ends with a zero with the pattern. @returns false at a difference
bool scan(const char* text, Found& found) {
    std::size_t numbers = 0;
    std::size_t bytes = 0;
    for (const char* p = PATTERN; *p != 0; ++p) {
        switch (*p) {
        case '%':
            if (!take_number(text, found.numbers[numbers++])) {
                return false;
            }
            break;
        case '@':
            found.chip_bytes = bytes; // of the last "@", what came before it
            for (; digit_at(text) < 16 && digit_at(text + 1) < 16 && bytes < found.bytes.size();
                 text += text[2] == ' ' ? 3 : 2) {
                found.bytes[bytes++] =
                    static_cast<std::uint8_t>(digit_at(text) << 4 | digit_at(text + 1));
            }
            break;
        case '*':
            while (*text != 0 && *text != '\r' && *text != '\n') {
                ++text;
            }
            break;
        default:
            text += *text == '\r' ? 1 : 0;
            if (*text++ != *p) {
                return false;
            }
        }
    }
    return *text == 0 && found.chip_bytes >= 1 && found.chip_bytes <= 4 &&
           bytes - found.chip_bytes == sizeof(QFU_SHA256::Sum);
}

bool parse_record(const char* text, Record& record) {
    Found found{};
    if (!scan(text, found)) {
        return false;
    }
    record = {};
    record.place = found.numbers[0] << 8 | found.numbers[1];
    record.model = found.numbers[2] << 16 | found.numbers[3];
    record.chip_select = found.numbers[4];
    record.address = found.numbers[5];
    record.size = found.numbers[6];
    for (std::size_t i = 0; i < found.chip_bytes; ++i) {
        record.id |= std::uint32_t{found.bytes[i]} << (8 * i);
        record.id_mask |= std::uint32_t{0xFF} << (8 * i);
    }
    for (std::size_t i = 0; i < record.sum.size(); ++i) {
        record.sum[i] = found.bytes[found.chip_bytes + i];
    }
    return true;
}

void add_time(Text& text) {
    platform::WallTime time{};
    if (!platform::wall_time(time)) {
        text.add("unknown");
        return;
    }
    const std::uint32_t parts[] = {time.year, time.month,  time.day,
                                   time.hour, time.minute, time.second};
    const char* separator = "";
    for (std::size_t i = 0; i < std::size(parts); ++i) {
        text.add("@@@", {separator, parts[i] < 10 ? "0" : "", parts[i]});
        separator = i < 2 ? "-" : i == 2 ? " " : ":";
    }
}

} // namespace

std::uint32_t place_of(const QFU_ADAPTER& adapter) {
    return std::uint32_t{adapter.bus} << 8 | adapter.dev;
}

std::uint32_t model_of(const QFU_ADAPTER& adapter) {
    return std::uint32_t{adapter.vendor_id} << 16 | adapter.device_id;
}

Text place_text(std::uint32_t place, std::uint32_t model) {
    return Text("@:@.0, @:@", {Digits(place >> 8, 2), Digits(place & 0xFF, 2),
                               Digits(model >> 16, 4), Digits(model & 0xFFFF, 4)});
}

Text id_text(std::uint32_t id, std::uint32_t mask) {
    Text text;
    for (std::uint32_t shift = 0; shift < 32 && (mask >> shift) != 0; shift += 8) {
        text.add("@@", {shift == 0 ? "" : " ", Digits((id >> shift) & 0xFF, 2)});
    }
    return text;
}

Text record_text(const Record& record, std::uint32_t adapter, std::uint32_t unstable) {
    Text text("qfu-backup 1\nadapter @", {adapter});
    text.add("\nplace @:@.0", {Digits(record.place >> 8, 2), Digits(record.place & 0xFF, 2)});
    text.add("\nmodel @:@", {Digits(record.model >> 16, 4), Digits(record.model & 0xFFFF, 4)});
    text.add("\nchip @", {id_text(record.id, record.id_mask)});
    text.add("\nchip-select @\naddress @", {record.chip_select, Hex(record.address)});
    text.add("\nsize @\nsha256 @\ndate ", {Hex(record.size), record.sum});
    add_time(text);
    text.add("\nunstable @\n", {unstable});
    return text;
}

Outcome read_record(const platform::FileName& file, Record& record) {
    platform::FileName name = file;
    platform::FileHandle text;
    constexpr char WITHOUT[] = "; without it: flash write ";
    if (!append(name, ".txt") || text.open(name, platform::ACCESS_READ) != EFI_SUCCESS) {
        return refused("@.txt: cannot be opened@@ -addr A", {file, WITHOUT, file});
    }
    std::array<char, RECORD_SIZE + 2> bytes{}; // a file that is too long, and a zero
    std::size_t count = bytes.size() - 1;
    if (platform::read(text.get(), bytes.data(), count) != EFI_SUCCESS || count > RECORD_SIZE ||
        !parse_record(bytes.data(), record)) {
        return refused("@: is no text file of a backup@@ -addr A", {name, WITHOUT, file});
    }
    return {};
}

} // namespace flash
