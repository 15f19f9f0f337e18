#include "lab.h"

#include "qfu/console.h"
#include "qfu/discover.h"
#include "qfu/platform/system.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <sstream>
#include <utility>

namespace lab {

using namespace emulator;

Bytes pattern(std::size_t count, std::uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(count);
    std::ranges::generate(bytes, [&] { return static_cast<std::uint8_t>(random()); });
    return bytes;
}

void fill(std::span<std::uint8_t> bytes, std::uint8_t value) {
    std::memset(bytes.data(), value, bytes.size());
}

bool equal(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other) {
    return one.size() == other.size() && std::memcmp(one.data(), other.data(), one.size()) == 0;
}

std::vector<std::string> words(std::string_view line) {
    std::istringstream in{std::string(line)};
    return {std::istream_iterator<std::string>(in), {}};
}

std::string Outcome::text() const {
    std::string result;
    bool listing = true;
    std::string line;
    const auto flush = [&] {
        listing = listing && line.starts_with('[');
        if (!listing) {
            result += line;
        }
        line.clear();
    };
    for (std::size_t i = 0; i < console.size(); ++i) {
        if (console[i] == '\r' && i + 1 < console.size() && console[i + 1] == '\n') {
            continue;
        }
        line.push_back(console[i]);
        if (console[i] == '\n') {
            flush();
        }
    }
    flush();
    return result;
}

Lab::Lab() {
    machine_ = std::make_unique<Machine>(clock_);
    firmware_ = std::make_unique<Firmware>(*machine_, clock_, folder_.path());
    machine_->journal().listen_to_cycles([this](std::string_view line) {
        cycles_ += line;
        cycles_ += '\n';
    });
    write_file("spilist.bin", shipped_chip_list());
}

Lab::~Lab() {
    EXPECT_EQ(machine_->journal().misuses(), std::vector<std::string>{});
    EXPECT_EQ(firmware_->resources(), Resources{}) << "something was not given back";
    EXPECT_TRUE(starvation_expected_ || !firmware_->terminal().starved())
        << "the program waited for a key that nobody pressed";
}

Adapter& Lab::adapter(std::uint16_t device, std::uint16_t vendor) {
    return adapter_at({0, next_device_++, 0}, device, vendor);
}

Adapter& Lab::adapter_at(PciAddress address, std::uint16_t device, std::uint16_t vendor,
                         std::uint8_t revision) {
    Adapter& adapter = machine_->add(*find_adapter_model(vendor, device), address, revision);
    machine_->assign_bars();
    return adapter;
}

SpiChip& Lab::chip(Adapter& adapter, std::string_view part, BusyTimes times) {
    return machine_->add_spi_chip(adapter, *find_spi_part(part), times);
}

NorChip& Lab::nor_chip(Adapter& adapter, std::uint32_t id, BusyTimes times) {
    return machine_->add_nor_chip(adapter, *find_nor_part(id), times);
}

SpiChip& Lab::kind(int flash_if, std::string_view part, BusyTimes times) {
    const std::uint16_t device = flash_if == 1 ? 0xC709 : flash_if == 2 ? 0xC703 : 0xC705;
    return chip(adapter(device), part, times);
}

void Lab::write_file(const std::string& name, std::span<const std::uint8_t> bytes) {
    folder_.write(name, bytes);
}

void Lab::write_file(const std::string& name, std::string_view text) {
    folder_.write(name, text);
}

Bytes Lab::read_file(const std::string& name) const {
    EXPECT_TRUE(std::filesystem::exists(folder() / name)) << name << " is missing";
    return folder_.read(name);
}

std::string Lab::read_text(const std::string& name) const {
    const Bytes bytes = read_file(name);
    return {bytes.begin(), bytes.end()};
}

Outcome Lab::run(std::string_view arguments, std::string_view keys) {
    return run(words(arguments), keys);
}

Outcome Lab::run(const std::vector<std::string>& arguments, std::string_view keys) {
    printed();
    firmware_->terminal().press(keys);
    std::vector<std::string> line = {kCommandName};
    line.insert(line.end(), arguments.begin(), arguments.end());
    const EFI_STATUS status = run_program(*firmware_, shell_, line);
    return {status, printed()};
}

void Lab::attach() {
    firmware_->activate(shell_, {kCommandName});
    platform::attach(firmware_->image(), firmware_->table());
    qfu_page_mode = false;
    qfu_page_lines = 0;
}

std::string Lab::printed() {
    const std::string& transcript = firmware_->terminal().transcript();
    return transcript.substr(std::exchange(seen_, transcript.size()));
}

std::string Lab::cycles() {
    return std::exchange(cycles_, {});
}

std::string Lab::registers() {
    machine_->journal().listen_to_registers([this](std::string_view line) {
        registers_ += line;
        registers_ += '\n';
    });
    return std::exchange(registers_, {});
}

void Lab::stop_listening() {
    machine_->journal().listen_to_cycles(nullptr);
    machine_->journal().listen_to_registers(nullptr);
}

std::vector<std::string> Lab::take_misuses() {
    return machine_->journal().take_misuses();
}

Discovered::~Discovered() {
    // The context gives its memory back behind this.
    lab.attach();
}

QFU_ADAPTER& Discovered::discover() {
    lab.attach();
    qfu_chiplist_load(context);
    qfu_discover(qfu_supported_adapters(), context);
    EXPECT_EQ(context.adapter_count, 1);
    return context.adapters[0];
}

Probed::Probed(int flash_if, std::string_view part, BusyTimes times)
    : chip(lab.kind(flash_if, part, times)) {}

Probed::Probed(std::uint16_t device, std::string_view part)
    : chip(lab.chip(lab.adapter(device), part, kNeverBusy)) {}

const Bytes& shipped_chip_list() {
    static const Bytes list = [] {
        std::ifstream in(QFU_SOURCE_DIR "/build/spilist.bin", std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }();
    EXPECT_FALSE(list.empty()) << "build/spilist.bin is not built";
    return list;
}

} // namespace lab
