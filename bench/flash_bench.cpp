// Register accesses and speed of the main job on hardware that is never busy.
#include "bench.h"

#include <algorithm>
#include <benchmark/benchmark.h>

namespace {

using namespace bench;

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
    const std::uint64_t before = bench.machine().accesses();
    for (auto _ : state) {
        bench.run({"-wbf", "image.bin", "-addr", "0", "-y"});
    }
    report(state, bench.machine().accesses() - before, size);
}

/// Dump of 1 MiB.
void dump(benchmark::State& state, const Subject& subject) {
    constexpr std::int64_t kSize = 1024 * kKiB;
    Bench bench(subject);
    std::ranges::copy(random_bytes(bench.contents().size()), bench.contents().begin());
    const std::uint64_t before = bench.machine().accesses();
    for (auto _ : state) {
        bench.run({"-rfb", "dump.bin", "-addr", "0", "-sz", std::to_string(kSize)});
    }
    report(state, bench.machine().accesses() - before, kSize);
}

BENCHMARK_CAPTURE(program_and_verify, kind1, kKind1, 64 * kKiB)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(program_and_verify, kind4, kKind4, 64 * kKiB)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(program_and_verify, nor, kNor, 1024 * kKiB)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dump, nor, kNor)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dump, kind1, kKind1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dump, kind4, kKind4)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
