// Any command line for the whole program on a healthy adapter. The input is text: a line with the
// adapter's kind and the query at which the user breaks the command; a line with the keys that are
// pressed, a "." for silence; a line with the arguments.
#include "bench.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::uint64_t kUsualBreak = 1024 + 200; // behind a scan for one model
    constexpr std::uint64_t kLastBreak = 24'000;      // behind one for every model
    fuzz::Input input(data, size);
    const std::string head(input.line());
    fuzz::Bench bench(head.empty() ? '4' : head.front());
    const std::uint64_t nth = head.empty() ? 0 : std::strtoul(&head[1], nullptr, 10);
    bench.faults().break_query.fail(nth == 0 ? kUsualBreak : std::min(nth, kLastBreak));
    // Whoever presses no key any more presses Enter, so that every wait for one ends.
    bench.firmware().terminal().on_key_needed(
        [keys = input.line()](bool) mutable -> std::optional<emulator::KeyStroke> {
            const char key = keys.empty() ? '\r' : keys.front();
            keys.remove_prefix(keys.empty() ? 0 : 1);
            return key == '.'
                       ? std::nullopt
                       : std::optional(emulator::KeyStroke{0, static_cast<unsigned char>(key)});
        });
    std::vector<std::string> arguments;
    const std::string_view line = input.line();
    for (fuzz::Input words(line.data(), line.size()); !words.empty();) {
        arguments.emplace_back(words.line(' '));
    }
    const EFI_STATUS status = bench.run(arguments).status;
    EXPECT_TRUE(status == EFI_SUCCESS || status == EFI_UNSUPPORTED) << status;
    // The PHY test takes the port as it is given, dump and erase the range.
    const emulator::SpiChip& chip = *bench.machine().adapter(0).spi().chip();
    const bool programs = chip.count(emulator::Operation::kProgram) != 0;
    for (const std::string& misuse : bench.take_misuses()) {
        const bool past_the_end = misuse.ends_with(", past the end of the chip") ||
                                  misuse.ends_with(" has more than 24 bits");
        EXPECT_TRUE(misuse.ends_with(": the port is not there") || (past_the_end && !programs))
            << misuse;
    }
    return 0;
}
