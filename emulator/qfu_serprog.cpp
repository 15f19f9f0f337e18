// Serves one emulated serial flash chip to flashrom and others that speak serprog.
#include "hardware/hex.h"
#include "machine/image_files.h"
#include "observe/report.h"
#include "serprog.h"
#include "support/arguments.h"
#include "support/input_error.h"
#include "support/output_file.h"
#include "support/version.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <sys/signalfd.h>

namespace {

using namespace emulator;

struct Options {
    std::string part;
    std::string image;
    std::uint16_t port = 0;
    std::optional<std::uint8_t> status;
    std::vector<std::uint8_t> refused;
    bool never_busy = false;
    bool once = false;
};

/// Clients look again after steps of their own, 10 ms to 1 s. These times are shorter, and long
/// enough to be seen.
constexpr BusyTimes kShort{10, 100, 10};

/// The erase opcodes of a part and what each erases.
std::string erases_of(const SpiPart& part) {
    constexpr std::uint32_t kKiB = 1024;
    std::string text;
    const auto add = [&](std::uint8_t opcode, const std::string& what) {
        text.append(text.empty() ? "" : ", ").append(hex(opcode, 2)).append(" ").append(what);
    };
    for (const EraseCommand& erase : part.erases->units) {
        if (erase.unit != 0) {
            add(erase.opcode, std::to_string(erase.unit / kKiB) + " KiB");
        }
    }
    for (const std::uint8_t opcode : part.erases->whole_chip) {
        if (opcode != 0) {
            add(opcode, "chip");
        }
    }
    return text;
}

/// A descriptor that can be read when the process is asked to end, which then ends it no more.
int end_requests() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

int run(const Options& options) {
    const SpiPart* found = find_spi_part(options.part);
    if (found == nullptr) {
        throw support::InputError("unknown part \"" + options.part +
                                  "\"; \"qfu-emu list parts\" prints all");
    }
    const SpiPart& part = *found;
    const int stop = end_requests();
    const SteadyClock clock;
    Journal journal;
    ImageFiles images;
    SpiChip chip(part, options.part, clock, journal, options.never_busy ? kNeverBusy : kShort,
                 images.open(options.image, part.size));
    if (options.status) {
        chip.set_status(*options.status);
    }
    for (const std::uint8_t opcode : options.refused) {
        chip.forget(opcode);
    }
    SerprogServer server(chip, options.port);
    std::cout << "127.0.0.1:" << server.port() << "  " << part.name << "  " << part.size
              << " bytes, erases " << erases_of(part) << std::endl;
    while (server.serve_client(stop) && !options.once) {
    }
    print_misuse("qfu-serprog", journal);
    images.expect_kept();
    support::finish_standard_output();
    return 0;
}

} // namespace

int main(int argc, char** argv) try {
    CLI::App app("Serves an emulated SPI flash chip to a program that speaks serprog, such as "
                 "flashrom, on a port of this machine alone. One client at a time; its misuse of "
                 "the chip is listed at the end.\n"
                 "The exit status is 0, or 2 when the chip cannot be served.",
                 "qfu-serprog");
    Options options;
    app.add_option("--part", options.part, "the chip; \"qfu-emu list parts\" names all")
        ->required();
    app.add_option("--image", options.image,
                   "file that keeps the contents; made when it is missing");
    app.add_option("--port", options.port,
                   "TCP port; 0 or nothing: any free one, which is printed");
    app.add_option("--status", options.status, "status register at power-up");
    app.add_option("--refuse", options.refused,
                   "opcode that the chip shall not know; can be repeated")
        ->allow_extra_args(false);
    app.add_flag("--never-busy", options.never_busy,
                 "the chip is ready at once after each command");
    app.add_flag("--once", options.once, "end when the first client has left");
    app.footer("Examples:\n"
               "  qfu-serprog --part W25Q32 --image chip.bin --port 4000\n"
               "  flashrom -p serprog:ip=127.0.0.1:4000 -r dump.bin");
    app.set_version_flag("--version", support::version_line("qfu-serprog"));
    if (const auto status = support::read_arguments(app, {argv + std::min(argc, 1), argv + argc})) {
        return *status;
    }
    return run(options);
} catch (const std::exception& error) {
    std::cerr << "qfu-serprog: " << error.what() << '\n';
    return support::kCannotRun;
}
