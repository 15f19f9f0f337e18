// A machine's adapters as PCI functions of a QEMU guest.
#pragma once

#include "hardware/machine.h"

#include <string>
#include <vector>

namespace emulator {

/// Serves the functions that QEMU's x-pci-proxy-dev puts into a guest: each configuration and BAR
/// access arrives as a message on a socket of its own.
class QemuBridge {
  public:
    /// Opens one socket pair a function. The machine must outlive the bridge.
    /// @throws std::system_error
    explicit QemuBridge(Machine& machine);
    QemuBridge(const QemuBridge&) = delete;
    QemuBridge& operator=(const QemuBridge&) = delete;
    ~QemuBridge();

    /// QEMU's arguments for the functions. QEMU must inherit the descriptors that they name.
    /// @throws support::InputError for adapters on buses that the guest would number otherwise
    std::vector<std::string> arguments() const;

    /// Closes QEMU's ends here, once QEMU has them, so that its end shows.
    void handed_over();

    /// Answers until QEMU has closed every function or `stop` is called.
    void serve();

    /// Lets `serve`, on another thread, return.
    void stop();

  private:
    struct Function;

    /// Answers one message. @returns false when QEMU has closed the function
    static bool answer(Function& function);

    Machine* machine_;
    std::vector<Function> functions_;
};

} // namespace emulator
