#include "in_process.h"

#include "flash/main.h"
#include "qfu/main.h"

namespace emulator {

EFI_STATUS run_program(Firmware& firmware, Shell shell, const std::vector<std::string>& arguments) {
    firmware.activate(shell, arguments);
    const bool flash = arguments.front() == command_name("flash");
    return (flash ? flash_entry : qfu_entry)(firmware.image(), firmware.table());
}

} // namespace emulator
