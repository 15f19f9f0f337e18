#include "bench.h"

#include <csignal>
#include <cstdlib>

namespace fs = std::filesystem;

namespace {

constexpr std::uint8_t kOld = 0xA5;

// Made once, since filling megabytes takes longer than a run.
std::vector<std::uint8_t> spi_contents(64U * 1024);
std::vector<std::uint8_t> nor_contents(4096U * 1024);

} // namespace

/// Where things were allocated is not worth its time; a finding that needs it can be run again.
extern "C" const char* __asan_default_options() { // NOLINT(bugprone-reserved-identifier)
    return "malloc_context_size=2:quarantine_size_mb=16";
}

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    GTEST_FLAG_SET(break_on_failure, true);
    // It breaks with a trap, at which the fuzzer would end without keeping the input.
    std::signal(SIGTRAP, [](int) { std::abort(); });
    // No disk is waited for.
    const fs::path place = fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
    static std::string own = (place / "qfu-fuzz-XXXXXX").string();
    setenv("TMPDIR", mkdtemp(own.data()), 1);
    std::atexit([] { fs::remove_all(own); });
    return 0;
}

namespace fuzz {

Bench::Bench(char kind) : device_(kind == '1' ? 0xC709 : kind == '2' ? 0xC703 : 0xC705) {
    emulator::Adapter& own = adapter(device_);
    std::memset(spi_contents.data(), kOld, spi_contents.size());
    machine().add_spi_chip(own, *emulator::find_spi_part("MX25L512"), emulator::kNeverBusy,
                           spi_contents);
    if (kind == '2') {
        std::memset(nor_contents.data(), kOld, spi_contents.size());
        machine().add_nor_chip(own, *emulator::find_nor_part(0x257E00EC), emulator::kNeverBusy,
                               nor_contents);
    }
    write_file("image.bin", kImage);
    attach();
}

Bench::~Bench() {
    const auto beside = fs::directory_iterator(folder().parent_path());
    EXPECT_EQ(std::distance(begin(beside), end(beside)), 1) << "a file beside the volume";
}

} // namespace fuzz
