// Register accesses and speed of the main job on hardware that is never busy.
#include "in_process.h"

#include "image.h"
#include "source.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

namespace {

using namespace emulator;
using Bytes = std::vector<std::uint8_t>;

/// What is measured: one kind of adapter with one chip.
struct Subject {
    std::uint16_t device;
    std::string_view spi_part;
    std::uint32_t nor_id; ///< with a SPI part 0
};
constexpr Subject kKind1{0xC709, "W25Q16", 0};
constexpr Subject kKind4{0xC705, "W25Q16", 0};
constexpr Subject kNor{0xC703, "", 0x22CB00C2};

/// A folder with a chip list and an image, and an adapter whose chip is never busy.
class Bench {
  public:
    explicit Bench(const Subject& subject) {
        std::string name = (std::filesystem::temp_directory_path() / "qfu-bench-XXXXXX").string();
        folder_ = mkdtemp(name.data());
        write("spilist.bin",
              chiplist::encode(chiplist::read_source(QFU_SOURCE_DIR "/chiplist/chips.toml")));
        Adapter& adapter = machine_.add(*find_adapter_model(0x1E5D, subject.device), {0, 2, 0}, 0);
        if (subject.nor_id != 0) {
            contents_ = machine_.add_nor_chip(adapter, *find_nor_part(subject.nor_id), kNeverBusy)
                            .contents();
        } else {
            contents_ = machine_.add_spi_chip(adapter, *find_spi_part(subject.spi_part), kNeverBusy)
                            .contents();
        }
        machine_.assign_bars();
        firmware_.emplace(machine_, clock_, folder_);
    }
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;
    ~Bench() { std::filesystem::remove_all(folder_); }

    void write(const std::string& name, const Bytes& bytes) const {
        std::ofstream out(folder_ / name, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
    }

    void run(const std::vector<std::string>& options) {
        std::vector<std::string> arguments = {kCommandName};
        arguments.insert(arguments.end(), options.begin(), options.end());
        run_program(*firmware_, Shell::kCurrent, arguments);
    }

    std::uint64_t accesses() const { return machine_.accesses(); }
    std::span<std::uint8_t> contents() const { return contents_; }

  private:
    std::filesystem::path folder_;
    VirtualClock clock_;
    Machine machine_{clock_};
    std::optional<Firmware> firmware_;
    std::span<std::uint8_t> contents_; ///< of the chip
};

Bytes random_bytes(std::size_t count) {
    std::mt19937 random(1);
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

void report(benchmark::State& state, std::uint64_t accesses, std::int64_t bytes_a_run) {
    const auto bytes = static_cast<double>(state.iterations() * bytes_a_run);
    state.SetBytesProcessed(state.iterations() * bytes_a_run);
    state.counters["accesses/byte"] = static_cast<double>(accesses) / bytes;
}

constexpr std::int64_t kKiB = 1024;

/// Erase, program and verify of so many bytes; the erase's accesses are among those reported.
void program_and_verify(benchmark::State& state, const Subject& subject, std::int64_t size) {
    Bench bench(subject);
    bench.write("image.bin", random_bytes(static_cast<std::size_t>(size)));
    const std::uint64_t before = bench.accesses();
    for (auto _ : state) {
        bench.run({"-wbf", "image.bin", "-addr", "0", "-y"});
    }
    report(state, bench.accesses() - before, size);
}

/// Dump of 1 MiB.
void dump(benchmark::State& state, const Subject& subject) {
    constexpr std::int64_t kSize = 1024 * kKiB;
    Bench bench(subject);
    std::ranges::copy(random_bytes(bench.contents().size()), bench.contents().begin());
    const std::uint64_t before = bench.accesses();
    for (auto _ : state) {
        bench.run({"-rfb", "dump.bin", "-addr", "0", "-sz", std::to_string(kSize)});
    }
    report(state, bench.accesses() - before, kSize);
}

BENCHMARK_CAPTURE(program_and_verify, kind1, kKind1, 64 * kKiB)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(program_and_verify, kind4, kKind4, 64 * kKiB)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(program_and_verify, nor, kNor, 1024 * kKiB)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dump, nor, kNor)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dump, kind1, kKind1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dump, kind4, kKind4)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
