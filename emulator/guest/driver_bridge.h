// A machine's adapters for a guest that loads the bus driver.
#pragma once

#include "guest_bridge.h"
#include "hardware/machine.h"

#include <deque>

namespace emulator {

namespace mailbox {
struct Mailbox;
}

/// Serves the cycles that the bus driver sends through memory shared with the guest. Works with
/// every QEMU that has ivshmem-doorbell. Firmware does not see the adapters: their BARs have
/// addresses from the start, outside of the guest's memory as long as that ends below 3 GiB.
class DriverBridge final : public GuestBridge {
  public:
    /// Makes the shared memory and the connection to QEMU. The machine must outlive the bridge.
    /// @throws std::system_error
    /// @throws support::InputError for more adapters than the mailbox has room for
    explicit DriverBridge(Machine& machine);
    ~DriverBridge() override;

    std::vector<std::string> arguments() const override;
    void handed_over() override;
    void serve() override;
    void stop() override;

    /// Each further time that the guest loads the driver, the next of these machines takes the
    /// place of the one before. They must outlive the bridge.
    void then(Machine& machine) { next_.push_back(&machine); }

  private:
    void present(Machine& machine);
    void driver_loaded();
    void answer();

    Machine* machine_ = nullptr;
    std::deque<Machine*> next_;
    bool loaded_ = false;
    int memory_ = -1;
    int doorbell_ = -1;
    int ours_ = -1;
    int qemus_ = -1;
    mailbox::Mailbox* mailbox_ = nullptr;
};

} // namespace emulator
