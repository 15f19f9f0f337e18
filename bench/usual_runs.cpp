// The runs that tell the compiler which way branches go: each kind of flash is programmed, verified
// and dumped. Now and then somebody listens to the cycles.
#include "bench.h"

#include <cstdio>

namespace {

using namespace bench;

constexpr std::size_t kSize = 256 * 1024;

/// @returns true when the program says that all went well
bool run_usually(const Subject& subject) {
    Bench bench(subject);
    bench.write("image.bin", random_bytes(kSize));
    bench.write("logged.bin", random_bytes(kSize / 16));
    bool well = bench.run({"-wbf", "image.bin", "-addr", "0", "-y"}) == EFI_SUCCESS;
    well &=
        bench.run({"-rfb", "dump.bin", "-addr", "0", "-sz", std::to_string(kSize)}) == EFI_SUCCESS;
    bench.machine().journal().listen_to_cycles([](std::string_view /*line*/) {});
    return bench.run({"-wbf", "logged.bin", "-addr", "0", "-y"}) == EFI_SUCCESS && well;
}

} // namespace

int main() {
    for (const Subject& subject : {kKind1, kKind4, kNor}) {
        if (!run_usually(subject)) {
            std::fprintf(stderr, "usual_runs: a run on adapter %X failed\n", subject.device);
            return 1;
        }
    }
}
