#include "job.h"

#include "qfu/discover.h"
#include "qfu/sha256.h"
#include "spilist/chip_list.h"
#include "spilist/source.h"
#include "support/table_reader.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <span>

namespace jobs {
namespace {

using support::TableReader;

constexpr std::int64_t kMostAdapters = QFU_MAX_ADAPTERS;

std::string in_quotes(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

std::string read_word(TableReader& reader, std::string_view key,
                      std::span<const std::string_view> words) {
    std::string text = reader.text(key, std::string(words.front()));
    if (std::ranges::find(words, text) == words.end()) {
        reader.fail(key, support::unknown_word("value", text, words));
    }
    return text;
}

/// The shell takes a name with other characters apart, or as an option.
bool is_plain(std::string_view name) {
    constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                        "0123456789._-";
    return !name.empty() && name.front() != '-' &&
           name.find_first_not_of(kPlain) == std::string_view::npos;
}

/// What the medium's own scripts make in the folder of the job. FAT does not tell "A" from "a".
bool is_taken(std::string name) {
    constexpr std::string_view kTaken[] = {"results.txt", "spilist.bin", "qfu.tmp", "qfu2.tmp"};
    std::ranges::transform(name, name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return name.ends_with(".nsh") || std::ranges::find(kTaken, name) != std::end(kTaken);
}

std::optional<Model> read_model(TableReader& reader) {
    if (reader.flag("all")) {
        if (reader.has("device") || reader.has("vendor")) {
            reader.fail("all", "means every model, so device and vendor cannot stand beside it");
        }
        return std::nullopt;
    }
    const auto vendor =
        static_cast<std::uint16_t>(reader.number("vendor", 0, 0xFFFF, QFU_USUAL_VENDOR));
    const auto device = static_cast<std::uint16_t>(reader.number("device", 0, 0xFFFF));
    for (const QFU_DEVICE_ENTRY& entry : qfu_supported_adapters()) {
        if (entry.vendor_id == vendor && entry.device_id == device) {
            return Model{vendor, device};
        }
    }
    reader.fail("device", fmt::format("unknown adapter 0x{:04X} of vendor 0x{:04X}; \"qfu-emu list "
                                      "adapters\" prints all",
                                      device, vendor));
}

/// "01:04.0", as lspci prints it.
std::optional<Place> parse_place(std::string_view text) {
    const auto number = [](std::string_view digits, std::uint32_t most) {
        std::uint32_t value = 0;
        const auto [end, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        return error == std::errc{} && end == digits.data() + digits.size() && value <= most
                   ? std::optional(value)
                   : std::nullopt;
    };
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || !text.ends_with(".0")) {
        return std::nullopt;
    }
    const auto bus = number(text.substr(0, colon), QFU_LAST_BUS);
    const auto device = number(text.substr(colon + 1, text.size() - colon - 3), QFU_LAST_DEVICE);
    return bus && device ? std::optional(Place{*bus, *device}) : std::nullopt;
}

void read_places(TableReader& reader, AdapterJob& adapter) {
    for (const std::string& text : reader.texts("places")) {
        const auto place = parse_place(text);
        if (!place) {
            reader.fail("places", in_quotes(text) +
                                      " is no place where qfu looks; it must be bus, device and "
                                      "function in hexadecimal from \"00:00.0\" to \"3f:0f.0\"");
        }
        if (std::ranges::find(adapter.places, *place) != adapter.places.end()) {
            reader.fail("places", in_quotes(text) + " stands there twice");
        }
        adapter.places.push_back(*place);
    }
    if (adapter.places.empty()) {
        adapter.count = static_cast<std::size_t>(reader.number("count", 1, kMostAdapters, 1));
    } else {
        adapter.count = adapter.places.size();
        if (reader.has("count") &&
            reader.number("count", 1, kMostAdapters) != static_cast<std::int64_t>(adapter.count)) {
            reader.fail("count", "does not fit the " + std::to_string(adapter.count) +
                                     " places; it can be left out");
        }
    }
}

void read_image(TableReader& reader, const std::filesystem::path& folder, AdapterJob& adapter) {
    adapter.image = reader.text("image");
    if (!is_plain(adapter.image)) {
        reader.fail("image", in_quotes(adapter.image) +
                                 " must be the name of a file in the job folder, of letters, "
                                 "digits, \".\", \"_\" and \"-\"");
    }
    if (is_taken(adapter.image)) {
        reader.fail("image", in_quotes(adapter.image) +
                                 " is the name of a file that the scripts of the medium use");
    }
    const std::filesystem::path name = folder / adapter.image;
    std::ifstream file(name, std::ios::binary);
    if (!file || !std::filesystem::is_regular_file(name)) {
        reader.fail("image", name.string() + ": cannot be read: " +
                                 (file ? "it is no file" : std::strerror(errno)));
    }
    QFU_SHA256 sha;
    std::array<char, 0x10000> buffer{};
    while (file.read(buffer.data(), buffer.size()), file.gcount() > 0) {
        const auto got = static_cast<std::size_t>(file.gcount());
        sha.add({reinterpret_cast<const std::uint8_t*>(buffer.data()), got});
        adapter.image_size += got;
    }
    for (const std::uint8_t byte : sha.finish()) {
        adapter.image_sum.push_back("0123456789abcdef"[byte >> 4]);
        adapter.image_sum.push_back("0123456789abcdef"[byte & 15]);
    }
    if (adapter.image_size == 0) {
        reader.fail("image", name.string() + " is empty");
    }
}

void read_range(TableReader& reader, std::uint32_t largest_chip, AdapterJob& adapter) {
    std::uint32_t size = largest_chip;
    std::string chip = "the largest chip that qfu knows";
    if (reader.has("chip")) {
        adapter.chip_size = spilist::parse_size(reader.text("chip"));
        if (!adapter.chip_size || *adapter.chip_size == 0 || *adapter.chip_size > largest_chip) {
            reader.fail("chip", "must be the chip's size like \"512K\" or \"4M\", at most " +
                                    spilist::size_text(largest_chip));
        }
        size = *adapter.chip_size;
        chip = "the chip";
    }
    adapter.address = static_cast<std::uint32_t>(reader.number("address", 0, 0xFFFFFFFF, 0));
    if (adapter.image_size > size || adapter.address > size - adapter.image_size) {
        reader.fail(reader.has("address") ? "address" : "image",
                    adapter.image + " with " + std::to_string(adapter.image_size) +
                        " bytes at address " + std::to_string(adapter.address) +
                        " goes past the end of " + chip + ", " + std::to_string(size) + " bytes");
    }
}

AdapterJob read_adapter(const toml::table& table, const std::filesystem::path& file,
                        std::uint32_t largest_chip) {
    TableReader reader(table, file);
    AdapterJob adapter;
    adapter.line = reader.line();
    adapter.model = read_model(reader);
    read_places(reader, adapter);
    read_image(reader, file.parent_path(), adapter);
    read_range(reader, largest_chip, adapter);
    if (reader.has("chip_select")) {
        adapter.chip_select = reader.number("chip_select", 0, 1);
    }
    adapter.backup = reader.flag("backup");
    if (adapter.backup && !adapter.chip_size) {
        reader.fail("backup", "needs chip = \"...\", the chip's size, to leave room on the medium");
    }
    adapter.again = reader.flag("again");
    reader.finish();
    return adapter;
}

/// True when an adapter could be meant by both.
bool overlap(const AdapterJob& a, const AdapterJob& b) {
    const bool same_model = !a.model || !b.model || *a.model == *b.model;
    const bool same_place = a.places.empty() || b.places.empty() ||
                            std::ranges::find_first_of(a.places, b.places) != a.places.end();
    return same_model && same_place;
}

} // namespace

Job load_job(const std::filesystem::path& folder, std::uint32_t largest_chip) {
    const std::filesystem::path file = folder / "job.toml";
    const toml::table root = support::parse_toml(file);
    TableReader reader(root, file);
    Job job;
    job.name = reader.text("name", std::string("job"));
    if (!is_plain(job.name)) {
        reader.fail("name", "must be of letters, digits, \".\", \"_\" and \"-\"");
    }
    job.on_failure = read_word(reader, "on_failure", kOnFailure);
    job.at_end = read_word(reader, "at_end", kEnds);
    std::size_t count = 0;
    for (const toml::table* table : reader.tables("adapter")) {
        AdapterJob adapter = read_adapter(*table, file, largest_chip);
        const TableReader here(*table, file);
        for (const AdapterJob& other : job.adapters) {
            if (overlap(adapter, other)) {
                here.fail(adapter.model ? "device" : "all",
                          "the adapter of line " + std::to_string(other.line) +
                              " can be the same; places tell them apart");
            }
        }
        count += adapter.count;
        if (count > QFU_MAX_ADAPTERS) {
            here.fail("count", "the job has " + std::to_string(count) + " adapters; qfu serves " +
                                   std::to_string(QFU_MAX_ADAPTERS));
        }
        job.adapters.push_back(std::move(adapter));
    }
    reader.finish();
    if (job.adapters.empty()) {
        reader.fail("adapter", "is missing; a job needs at least one [[adapter]]");
    }
    return job;
}

std::uint64_t room_for(const Job& job) {
    std::uint64_t room = 0;
    for (const AdapterJob& adapter : job.adapters) {
        // What the range held before and what it holds afterwards; the whole chip, read twice.
        room += adapter.count * 2 * adapter.image_size;
        room += adapter.backup ? adapter.count * 2 * adapter.chip_size.value() : 0;
    }
    return room;
}

} // namespace jobs
