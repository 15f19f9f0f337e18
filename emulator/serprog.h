// Serves a serial flash chip to programs that speak serprog, over TCP.
#pragma once

#include "hardware/spi_chip.h"

#include <cstdint>

namespace emulator {

/// A serprog programmer on a loopback port with one chip in its socket. It has one client at a
/// time; the next one waits until the first has left.
class SerprogServer {
  public:
    /// @param port  0: any that is free
    /// @throws std::system_error when the port cannot be had
    SerprogServer(SpiChip& chip, std::uint16_t port);
    SerprogServer(const SerprogServer&) = delete;
    SerprogServer& operator=(const SerprogServer&) = delete;
    ~SerprogServer();

    std::uint16_t port() const;

    /// Waits for a client and serves it until it leaves, or sends nothing for a minute.
    /// @param stop  a descriptor; the server stops as soon as it can be read
    /// @returns false when it was stopped
    bool serve_client(int stop);

  private:
    SpiChip* chip_;
    int listener_;
};

} // namespace emulator
