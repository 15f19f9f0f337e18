// What connects a machine's adapters with a QEMU guest.
#pragma once

#include <string>
#include <vector>

namespace emulator {

/// One way for a guest to reach adapters that live in this process.
class GuestBridge {
  public:
    GuestBridge() = default;
    GuestBridge(const GuestBridge&) = delete;
    GuestBridge& operator=(const GuestBridge&) = delete;
    virtual ~GuestBridge() = default;

    /// What QEMU needs on its command line. It must inherit the descriptors that are named there.
    /// @throws support::InputError for adapters that cannot be served this way
    virtual std::vector<std::string> arguments() const = 0;

    /// Closes QEMU's ends here, once QEMU has them, so that its end shows.
    virtual void handed_over() = 0;

    /// Answers until QEMU has ended or `stop` is called.
    virtual void serve() = 0;

    /// Lets `serve`, on another thread, return.
    virtual void stop() = 0;
};

} // namespace emulator
