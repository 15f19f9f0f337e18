#include "in_process.h"

#include "qfu/main.h"

namespace emulator {

EFI_STATUS run_program(Firmware& firmware, Shell shell, const std::vector<std::string>& arguments) {
    firmware.activate(shell, arguments);
    return qfu_entry(firmware.image(), firmware.table());
}

} // namespace emulator
