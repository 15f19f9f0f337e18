#include "vcd_file.h"

#include <algorithm>

namespace emulator {
namespace {

/// Printable characters are the digits of identifiers.
std::string identifier(int number) {
    constexpr int kFirst = '!';
    constexpr int kDigits = '~' - kFirst + 1;
    std::string id;
    do {
        id.push_back(static_cast<char>(kFirst + number % kDigits));
        number /= kDigits;
    } while (number != 0);
    return id;
}

} // namespace

VcdFile::VcdFile(const std::filesystem::path& file, std::span<const std::filesystem::path> inputs)
    : file_(file, inputs, support::Appears::kAsWritten),
      declarations_("$timescale " + std::to_string(kUnitNs) + " ns $end\n") {}

void VcdFile::enter_scope(std::string_view name) {
    declarations_.append("$scope module ").append(name).append(" $end\n");
}

void VcdFile::leave_scope() {
    declarations_.append("$upscope $end\n");
}

VcdFile::Signal VcdFile::declare(std::string_view type, std::string_view name, int count) {
    Signal signal;
    signal.id_ = identifier(signals_++);
    signal.bits_ = count;
    declarations_.append("$var ").append(type).append(" ").append(std::to_string(count));
    declarations_.append(" ").append(signal.id_).append(" ").append(name);
    if (count > 1) {
        declarations_.append(" [").append(std::to_string(count - 1)).append(":0]");
    }
    declarations_.append(" $end\n");
    return signal;
}

VcdFile::Signal VcdFile::bits(std::string_view name, int count, std::uint64_t value) {
    Signal signal = declare("wire", name, count);
    signal.value_ = value;
    write_value(signal);
    return signal;
}

VcdFile::Signal VcdFile::text(std::string_view name) {
    Signal signal = declare("string", name, 1);
    signal.bits_ = 0;
    signal.text_ = "-";
    write_value(signal);
    return signal;
}

void VcdFile::at(std::uint64_t time) {
    if (time > time_) {
        time_ = time;
        time_written_ = false;
    }
}

void VcdFile::set(Signal& signal, std::uint64_t value) {
    if (signal.value_ != value) {
        signal.value_ = value;
        write_time();
        write_value(signal);
    }
}

void VcdFile::set(Signal& signal, std::string_view text) {
    if (signal.text_ != text) {
        signal.text_ = text;
        write_time();
        write_value(signal);
    }
}

/// The first time stands with the first values: programs start there.
void VcdFile::write_time() {
    if (time_written_) {
        return;
    }
    time_written_ = true;
    if (!declarations_.empty()) {
        file_.write(declarations_ + "$enddefinitions $end\n#" +
                    std::to_string(time_ == 0 ? 0 : time_ - 1) + "\n$dumpvars\n" + first_values_ +
                    "$end\n");
        declarations_.clear();
    }
    file_.write("#" + std::to_string(time_) + "\n");
}

void VcdFile::write_value(const Signal& signal) {
    std::string line;
    if (signal.bits_ == 1) {
        line = signal.value_ != 0 ? "1" : "0";
    } else if (signal.bits_ == 0) {
        line = "s" + signal.text_ + " ";
        std::replace(line.begin(), line.end() - 1, ' ', '_');
    } else {
        line = "b";
        for (int bit = signal.bits_ - 1; bit >= 0; --bit) {
            line.push_back((signal.value_ >> bit & 1) != 0 ? '1' : '0');
        }
        line.push_back(' ');
    }
    line.append(signal.id_).append("\n");
    if (declarations_.empty()) {
        file_.write(line);
    } else {
        first_values_ += line;
    }
}

void VcdFile::finish(std::uint64_t time) {
    at(time);
    write_time();
    file_.finish();
}

} // namespace emulator
