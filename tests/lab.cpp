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

Lab::Lab() {
    machine_ = std::make_unique<Machine>(clock_);
    firmware_ = std::make_unique<Firmware>(*machine_, clock_, folder_.path());
    write_file("spilist.bin", shipped_chip_list());
}

Lab::~Lab() {
    EXPECT_EQ(machine_->journal().misuses(), std::vector<std::string>{});
    EXPECT_EQ(firmware_->resources(), Resources{}) << "something was not given back";
}

Adapter& Lab::adapter(std::uint16_t device, PciAddress address, std::uint8_t revision) {
    Adapter& adapter = machine_->add(*find_adapter_model(0x1E5D, device), address, revision);
    machine_->assign_bars();
    return adapter;
}

void Lab::write_file(const std::string& name, std::span<const std::uint8_t> bytes) {
    folder_.write(name, bytes);
}

void Lab::write_file(const std::string& name, std::string_view text) {
    folder_.write(name, text);
}

Outcome Lab::run(std::string_view arguments, std::string_view keys) {
    std::istringstream in{std::string(arguments)};
    return run(std::vector<std::string>(std::istream_iterator<std::string>(in), {}), keys);
}

Outcome Lab::run(const std::vector<std::string>& arguments, std::string_view keys) {
    printed();
    firmware_->terminal().press(keys);
    std::vector<std::string> line = {command_name("qfu")};
    line.insert(line.end(), arguments.begin(), arguments.end());
    const EFI_STATUS status = run_program(*firmware_, Shell::kCurrent, line);
    return {status, printed()};
}

void Lab::attach(Shell shell) {
    firmware_->activate(shell, {command_name("qfu")});
    platform::attach(firmware_->image(), firmware_->table());
    qfu_page_mode = false;
    qfu_printer = qfu_print_to_console;
    qfu_page_lines = 0;
}

std::string Lab::printed() {
    const std::string& transcript = firmware_->terminal().transcript();
    return transcript.substr(std::exchange(seen_, transcript.size()));
}

std::string Lab::log() {
    const auto note = [this](std::string_view line) { (log_ += line) += '\n'; };
    machine_->journal().listen_to_registers(note);
    machine_->journal().listen_to_cycles(note);
    return std::exchange(log_, {});
}

std::vector<std::string> Lab::take_misuses() {
    return machine_->journal().take_misuses();
}

Bench::Bench(std::uint16_t device, std::string_view spi_part, std::uint32_t nor_id,
             std::uint8_t revision)
    : model(lab.adapter(device, {0, 2, 0}, revision)) {
    if (!spi_part.empty()) {
        lab.machine().add_spi_chip(model, *find_spi_part(spi_part), kNeverBusy);
    }
    if (nor_id != 0) {
        lab.machine().add_nor_chip(model, *find_nor_part(nor_id), kNeverBusy);
    }
}

Bench::~Bench() {
    // The context gives its memory back after this.
    lab.attach();
}

QFU_ADAPTER& Bench::discover() {
    lab.attach();
    qfu_chiplist_load(context);
    qfu_discover(qfu_supported_adapters(), context);
    EXPECT_EQ(context.adapter_count, 1);
    return context.adapters[0];
}

const Bytes& shipped_chip_list() {
    static const Bytes list = [] {
        std::ifstream in(QFU_SOURCE_DIR "/build/spilist.bin", std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }();
    EXPECT_FALSE(list.empty()) << "build/spilist.bin is not built";
    return list;
}

} // namespace lab
