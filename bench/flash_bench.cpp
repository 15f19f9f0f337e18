// Register accesses and speed of the main job: erase, program and verify, on hardware that is never
// busy.
#include "emulator/in_process.h"
#include "spilist/image.h"
#include "spilist/source.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

using namespace emulator;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kKiB = 1024;

/// A chip to program on an adapter model.
struct Subject {
    std::uint16_t device;
    std::string_view spi_part;
    std::uint32_t nor_id; ///< with a SPI part 0
    std::size_t size;     ///< of the image
};

void write(const std::filesystem::path& file, const Bytes& bytes) {
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

Bytes random_bytes(std::size_t count) {
    std::mt19937 random(1);
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

void program_and_verify(benchmark::State& state, const Subject& subject) {
    std::string name = (std::filesystem::temp_directory_path() / "qfu-bench-XXXXXX").string();
    const std::filesystem::path folder = mkdtemp(name.data());
    write(folder / "spilist.bin",
          spilist::encode(spilist::read_source(QFU_SOURCE_DIR "/spilist/chips.toml")));
    write(folder / "image.bin", random_bytes(subject.size));
    VirtualClock clock;
    Machine machine(clock);
    Adapter& adapter = machine.add(*find_adapter_model(0x1E5D, subject.device), {0, 2, 0}, 0);
    if (subject.nor_id != 0) {
        machine.add_nor_chip(adapter, *find_nor_part(subject.nor_id), kNeverBusy);
    } else {
        machine.add_spi_chip(adapter, *find_spi_part(subject.spi_part), kNeverBusy);
    }
    machine.assign_bars();
    Firmware firmware(machine, clock, folder);
    while (state.KeepRunning()) {
        run_program(firmware, Shell::kCurrent,
                    {command_name("qfu"), "-wbf", "image.bin", "-addr", "0", "-y"});
    }
    const auto bytes = state.iterations() * static_cast<std::int64_t>(subject.size);
    state.SetBytesProcessed(bytes);
    state.counters["accesses/byte"] =
        static_cast<double>(machine.accesses()) / static_cast<double>(bytes);
    std::filesystem::remove_all(folder);
}

BENCHMARK_CAPTURE(program_and_verify, kind1, {0xC709, "W25Q16", 0, 64 * kKiB})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(program_and_verify, kind4, {0xC705, "W25Q16", 0, 64 * kKiB})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(program_and_verify, nor, {0xC703, "", 0x22CB00C2, 1024 * kKiB})
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
