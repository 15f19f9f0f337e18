// A machine's adapters as PCI functions of a QEMU guest.
#pragma once

#include "guest_bridge.h"
#include "hardware/machine.h"

#include <string>
#include <vector>

namespace emulator {

/// Serves the functions that QEMU's x-pci-proxy-dev puts into a guest: each configuration and BAR
/// access arrives as a message on a socket of its own.
class QemuBridge final : public GuestBridge {
  public:
    /// Opens one socket pair a function. The machine must outlive the bridge.
    /// @throws std::system_error
    explicit QemuBridge(Machine& machine);
    ~QemuBridge() override;

    /// @throws support::InputError for adapters on buses that the guest would number otherwise
    std::vector<std::string> arguments() const override;
    void handed_over() override;
    void serve() override;
    void stop() override;

  private:
    struct Function;

    /// Answers one message. @returns false when QEMU has closed the function
    static bool answer(Function& function);

    Machine* machine_;
    std::vector<Function> functions_;
};

} // namespace emulator
