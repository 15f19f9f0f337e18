// Writes qfu.man, which the UEFI shell prints for "qfu -?" and "help qfu", from the program's own
// texts.
#include "qfu/help.h"
#include "qfu/phy_test.h"

#include <fstream>
#include <iostream>
#include <string>

namespace {

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

std::string manual() {
    std::string text = ".TH qfu 0 \"Programs, dumps and erases the flash of storage adapters.\"\n"
                       ".SH NAME\n"
                       "Programs, dumps and erases the flash of storage adapters.\n"
                       ".SH SYNOPSIS\n";
    // "-?" prints no further section than this one.
    for (const char* part : qfu_help_texts()) {
        text += part;
    }
    text += QFU_PHY_USAGE;
    return text;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: make_man FILE\n";
        return 2;
    }
    std::ofstream file(argv[1], std::ios::binary | std::ios::trunc);
    write_ucs2(file, manual());
    if (!file.flush()) {
        std::cerr << "make_man: " << argv[1] << ": cannot be written\n";
        return 1;
    }
    return 0;
}
