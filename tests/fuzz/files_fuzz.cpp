// Image and chip list as files that change between calls: what a size query says and what a read
// gives comes from the input, a byte a call. What goes into the chip must be what was read, and
// success must mean that all of it is there.
#include "bench.h"

#include <algorithm>

namespace {

constexpr std::size_t kAddress = 0x2000;
constexpr std::size_t kSector = 0x1000;

/// The shell's file calls in one run, and what they said.
struct Calls {
    fuzz::Input input;
    EFI_SHELL_GET_FILE_SIZE size;
    EFI_SHELL_READ_FILE read;
    int queries = 0;
    int reads = 0;
    std::uint32_t claimed = 0; ///< the image's last size, as the program counts it
    std::string given{};       ///< what was read of the image
};
Calls* calls;

EFI_STATUS EFIAPI query_size(SHELL_FILE_HANDLE handle, UINT64* size) {
    constexpr int kHuge = 27; // more than memory holds, and perhaps a multiple of 4 GiB
    calls->size(handle, size);
    const int choice = calls->input.take<std::uint8_t>() % 4;
    if (choice == 1) {
        *size = calls->input.take<std::uint16_t>() % (2 * kSector);
    } else if (choice == 2) {
        *size = (calls->input.take<std::uint32_t>() | std::uint64_t{1}) << kHuge;
    } else if (choice == 3) {
        *size = 0;
    }
    if (++calls->queries == 2) { // the first finds the end, the list's follow
        calls->claimed = static_cast<std::uint32_t>(*size);
    }
    return choice == 3 ? EFI_DEVICE_ERROR : EFI_SUCCESS;
}

EFI_STATUS EFIAPI read_file(SHELL_FILE_HANDLE handle, UINTN* size, VOID* buffer) {
    const UINTN wanted = *size;
    const EFI_STATUS status = calls->read(handle, size, buffer);
    const bool is_image = ++calls->reads > 1; // the list is read first
    const int choice = calls->input.take<std::uint8_t>() % 4;
    if (choice == 1) {
        *size = std::min<UINTN>(*size, calls->input.take<std::uint8_t>());
    } else if (choice == 2) { // as many bytes as were asked for, whatever the file holds
        *size = wanted;
        std::memset(buffer, calls->input.take<std::uint8_t>(), wanted);
    } else if (choice == 3) {
        return EFI_DEVICE_ERROR;
    }
    calls->given.append(static_cast<const char*>(buffer), is_image ? *size : 0);
    return status;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Bench bench('4');
    auto& shell = bench.table<EFI_SHELL_PROTOCOL>(EFI_SHELL_PROTOCOL_GUID);
    Calls now{fuzz::Input(data, size), shell.GetFileSize, shell.ReadFile};
    calls = &now;
    shell.GetFileSize = query_size;
    shell.ReadFile = read_file;
    const std::string console = bench.run("-wbf image.bin -addr 0x2000 -y" + bench.only()).console;

    static const lab::Bytes kUntouched(bench.contents().size(), fuzz::Bench::kOld);
    const auto flash = bench.contents();
    const auto is_old = [&](std::size_t first, std::size_t end) {
        return std::memcmp(&flash[first], &kUntouched[first], end - first) == 0;
    };
    const std::size_t behind =
        kAddress + (std::size_t{now.claimed} + kSector - 1) / kSector * kSector;
    EXPECT_TRUE(is_old(0, kAddress)) << "a byte before the image was changed";
    EXPECT_TRUE(behind >= flash.size() || is_old(behind, flash.size())) << "a unit behind it was";
    if (console.find("Write file is successful!!") != std::string::npos) {
        EXPECT_EQ(now.given.size(), now.claimed);
        EXPECT_EQ(std::memcmp(now.given.data(), &flash[kAddress], now.given.size()), 0)
            << "success, but the flash does not hold the image";
    }
    return 0;
}
