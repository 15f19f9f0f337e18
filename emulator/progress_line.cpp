#include "progress_line.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace emulator {
namespace {

using namespace std::chrono_literals;

/// A run that is over sooner needs no line.
constexpr auto kMoment = 1s;
/// Figures that change faster cannot be read.
constexpr auto kReadable = 250ms;

/// The cursor goes one line down and back, so that there is such a line, and stays where it is. The
/// program's next character comes where it would have come.
constexpr char kToOwnLine[] = "\033D\033[A\0337\033[B\r";
constexpr char kBack[] = "\033[K\0338";

/// True when what is printed goes to a terminal that can move its cursor. At the end of a pipe
/// there may be somebody who prints on the terminal at any time.
bool is_place_for_a_line() {
    const char* terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && isatty(STDERR_FILENO) != 0 && terminal != nullptr &&
           std::string_view(terminal) != "dumb";
}

std::size_t columns() {
    constexpr std::size_t kUsual = 80;
    winsize size{};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return known ? size.ws_col : kUsual;
}

std::uint64_t erased_bytes(const Machine& machine) {
    std::uint64_t bytes = 0;
    for (const auto& adapter : machine.adapters()) {
        if (const SpiChip* chip = adapter->spi().chip()) {
            bytes += chip->erased_bytes();
        }
        if (adapter->nor() != nullptr && adapter->nor()->chip() != nullptr) {
            bytes += adapter->nor()->chip()->erased_bytes();
        }
    }
    return bytes;
}

/// A number as the program reads it: hexadecimal with 0x, else decimal.
std::uint64_t number(const std::string& text) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    return std::strtoull(text.c_str(), nullptr, hex ? 16 : 10);
}

} // namespace

ProgressLine::ProgressLine(Firmware& firmware, std::vector<std::string> arguments)
    : firmware_(&firmware), arguments_(std::move(arguments)), has_place_(is_place_for_a_line()),
      only_erases_(std::ranges::find(arguments_, "-se") != arguments_.end()) {}

const std::string* ProgressLine::value_of(const char* option) const {
    const auto found = std::ranges::find(arguments_, option);
    return arguments_.end() - found > 1 ? &found[1] : nullptr;
}

/// The program prints when it has moved a block or is about to erase the next unit, so that is when
/// somebody counts. Bytes of an image count when they are programmed and compared.
void ProgressLine::count() {
    const FileTraffic file = firmware_->files().traffic();
    moves_ = moves_ || (file.moved != 0 && !only_erases_);
    done_ = moves_ ? file.moved : erased_bytes(firmware_->machine());
    const std::string* size = value_of("-sz");
    const std::uint64_t asked_for = size == nullptr ? 0 : number(*size);
    const std::uint64_t image = value_of("-wbf") == nullptr ? 0 : file.size;
    const std::string* adapter = value_of("-adid");
    const bool several =
        adapter != nullptr && *adapter == "ALL" && firmware_->machine().adapters().size() > 1;
    if (several) {
        total_ = 0; // some of them may have no chip
    } else if (moves_) {
        total_ = image != 0 ? image : asked_for;
    } else {
        total_ = only_erases_ ? std::max(asked_for, image) : 0;
    }
}

void ProgressLine::draw() {
    if (!has_place_) {
        return;
    }
    const std::uint64_t done_before = done_;
    const bool moved_before = moves_;
    count();
    if (done_ <= done_before && moves_ == moved_before) {
        return;
    }
    const Time now = std::chrono::steady_clock::now();
    if (done_before == 0) {
        first_ = now;
    }
    if (done_before == 0 || moves_ != moved_before) {
        since_ = now;
        done_then_ = done_;
        stale_ = now;
    }
    if (now - first_ < kMoment) {
        return;
    }
    if (now >= stale_) {
        text_ = text(now).substr(0, columns() - 1);
        stale_ = now + kReadable;
    }
    std::cerr << std::string(kToOwnLine) + text_ + kBack;
    shown_ = true;
}

void ProgressLine::wipe() {
    if (std::exchange(shown_, false)) {
        std::cerr << std::string(kToOwnLine) + kBack;
    }
}

std::string ProgressLine::text(Time now) const {
    constexpr std::uint64_t kBytesInKiB = 1024;
    std::string text = "qfu-emu: ";
    const auto append = [&text](const char* format, auto... values) {
        std::array<char, 60> part{};
        std::snprintf(part.data(), part.size(), format, values...);
        text += part.data();
    };
    const auto whole = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    // The last unit of an erase may reach behind the range; and nothing is done before its end.
    constexpr std::uint64_t kNotDone = 99;
    const std::uint64_t done = total_ == 0 ? done_ : std::min(done_, total_);
    if (total_ != 0) {
        append("%llu %%, ", whole(std::min(kNotDone, 100 * done / total_)));
    }
    text += moves_ ? "" : "erased ";
    append("%llu", whole(done / kBytesInKiB));
    if (total_ != 0) {
        append(" of %llu", whole(total_ / kBytesInKiB));
    }
    text += " KiB";
    const double seconds = std::chrono::duration<double>(now - since_).count();
    const double rate = static_cast<double>(done_ - done_then_) / seconds;
    if (seconds > 0 && rate > 0) {
        append(", %.1f KiB/s", rate / static_cast<double>(kBytesInKiB));
        if (total_ != 0) {
            constexpr std::uint64_t kMinute = 60;
            const auto left = static_cast<std::uint64_t>(static_cast<double>(total_ - done) / rate);
            append(", %llu:%02llu left", whole(left / kMinute), whole(left % kMinute));
        }
    }
    return text;
}

} // namespace emulator
