// Writes the manual of a program, which the UEFI shell prints for "qfu -?" and "help qfu", from the
// program's own texts.
#include "hardware/clock.h"
#include "hardware/machine.h"
#include "in_process.h"
#include "qfu/help.h"
#include "qfu/phy_test.h"

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

namespace {

constexpr char kFlashStatus[] = R"(
Exit status, which "echo %lasterror%" shows:
           0                            1                    2
  list     the adapters are shown       -                    none was found
  write    the flash holds the image    it does not, or not  nothing was changed
                                        all of it
  verify   all bytes are equal          some differ, or are  not compared
                                        unstable
  backup   the file holds the range,    -                    no backup was made
           read twice and read back
  restore  the flash holds the file     it does not, or not  nothing was changed
                                        all of it
  erase    the range reads FF           not all of it does   nothing was changed
  blank    the range reads FF           not all of it does   not read
  info     the answers are shown        -                    no chip was found
With status 2 the flash was neither erased nor programmed nor unlocked. The last
line says why, and after status 1 what the flash holds and where the backup is.

Example: save the whole chip of adapter 0, program an image, compare once more
  flash list
  flash backup all.bin -adid 0
  flash write image.bin -addr 0x1000 -adid 0
  flash verify image.bin -addr 0x1000 -adid 0
)";

/// What flash prints for a help option; `words` follow its name.
std::string help_of_flash(std::vector<std::string> words) {
    emulator::VirtualClock clock;
    emulator::Machine machine(clock);
    emulator::Firmware firmware(machine, clock, ".");
    words.insert(words.begin(), emulator::command_name("flash"));
    emulator::run_program(firmware, emulator::Shell::kCurrent, words);
    std::string text = firmware.terminal().transcript();
    std::erase(text, '\r');
    return text;
}

/// What each command does, and the options of all.
std::string flash_text() {
    const std::string help = help_of_flash({"-h"});
    std::string text = help;
    std::string options = "\nOptions:\n";
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        std::string command;
        if (!line.starts_with("  ") || !(words >> name >> command)) {
            continue;
        }
        text += '\n' + name + ' ' + command + '\n';
        std::istringstream details(help_of_flash({command, "-h"}));
        std::getline(details, line); // the synopsis
        while (std::getline(details, line)) {
            const bool is_option = line.starts_with("  -");
            if (!is_option || options.find('\n' + line + '\n') == std::string::npos) {
                (is_option ? options : text) += line + '\n';
            }
        }
    }
    return text + options + kFlashStatus;
}

std::string qfu_text() {
    std::string text;
    for (const char* part : qfu_help_texts()) {
        text += part;
    }
    return text + QFU_PHY_USAGE;
}

/// The shell reads man files in UCS-2, little-endian, behind a byte-order mark.
void write_ucs2(std::ostream& out, const std::string& text) {
    out << "\xFF\xFE";
    for (const char c : text) {
        if (c == '\n') {
            out << '\r' << '\0';
        }
        out << c << '\0';
    }
}

/// "-?" prints no further section than the last.
std::string manual(const std::string& name, const std::string& does, const std::string& text) {
    return ".TH " + name + " 0 \"" + does + "\"\n.SH NAME\n" + does + "\n.SH SYNOPSIS\n" + text;
}

} // namespace

int main(int argc, char** argv) {
    const std::string name = argc == 3 ? argv[1] : "";
    if (name != "qfu" && name != "flash") {
        std::cerr << "usage: make_man qfu|flash FILE\n";
        return 2;
    }
    std::ofstream file(argv[2], std::ios::binary | std::ios::trunc);
    write_ucs2(
        file,
        name == "qfu"
            ? manual(name, "Programs, dumps and erases the flash of storage adapters.", qfu_text())
            : manual(name, "Writes the flash of storage adapters and proves the result.",
                     flash_text()));
    if (!file.flush()) {
        std::cerr << "make_man: " << argv[2] << ": cannot be written\n";
        return 1;
    }
    return 0;
}
