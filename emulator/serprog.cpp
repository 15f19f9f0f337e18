#include "serprog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <span>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace emulator {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kAck = 0x06;
constexpr std::uint8_t kNak = 0x15;
constexpr std::uint8_t kSpiBus = 0x08; ///< bit of the bus types

/// A number of `count` bytes, the lowest first.
std::uint32_t number(std::span<const std::uint8_t> bytes) {
    std::uint32_t value = 0;
    for (std::size_t i = bytes.size(); i > 0; --i) {
        value = value << 8 | bytes[i - 1];
    }
    return value;
}

/// Acknowledges, with the lowest `count` bytes of a number behind it.
Bytes ack(std::uint32_t value = 0, std::size_t count = 0) {
    Bytes bytes = {kAck};
    for (std::size_t i = 0; i < count; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    return bytes;
}

/// Waits until a socket has something to read.
/// @returns false when `stop` has, too, or when nothing comes in time (-1: no limit)
bool readable(int socket, int stop, int milliseconds) {
    std::array<pollfd, 2> descriptors = {
        {{socket, POLLIN, 0}, {stop, POLLIN, 0}}
    };
    const int ready = poll(descriptors.data(), descriptors.size(), milliseconds);
    return ready > 0 && descriptors[1].revents == 0;
}

bool stopped(int stop) {
    pollfd descriptor = {stop, POLLIN, 0};
    return poll(&descriptor, 1, 0) != 0;
}

/// The stream of bytes from and to a client.
class Connection {
  public:
    Connection(int socket, int stop) : socket_(socket), stop_(stop) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { close(socket_); }

    /// The next bytes from the client. @returns false when they do not come any more
    bool take(std::span<std::uint8_t> to) {
        while (!to.empty()) {
            if (unread_.empty() && !refill()) {
                return false;
            }
            const std::size_t count = std::min(to.size(), unread_.size());
            std::ranges::copy(unread_.first(count), to.begin());
            unread_ = unread_.subspan(count);
            to = to.subspan(count);
        }
        return true;
    }

    /// @returns false when the client does not take them
    bool send(std::span<const std::uint8_t> bytes) const {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
        }
        return true;
    }

  private:
    bool refill() {
        constexpr int kMinute = 60'000;
        if (!readable(socket_, stop_, kMinute)) {
            return false;
        }
        const ssize_t got = recv(socket_, buffer_.data(), buffer_.size(), 0);
        unread_ = std::span(buffer_).first(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return got > 0;
    }

    int socket_;
    int stop_;
    std::array<std::uint8_t, 4096> buffer_{};
    std::span<std::uint8_t> unread_;
};

/// What a client asks, from its first command to its last.
class Session {
  public:
    Session(SpiChip& chip, Connection& client) : chip_(&chip), client_(&client) {}

    void run() {
        std::array<std::uint8_t, 1> opcode{};
        bool goes_on = true;
        while (goes_on && client_->take(opcode)) {
            goes_on = answer(opcode[0]);
        }
    }

  private:
    struct Command {
        std::uint8_t opcode;
        std::uint8_t parameters; ///< bytes behind the opcode
        Bytes (Session::*answer)(std::span<const std::uint8_t> parameters);
    };
    static const std::array<Command, 13> kCommands;

    bool answer(std::uint8_t opcode) {
        const auto* command = std::ranges::find(kCommands, opcode, &Command::opcode);
        if (command == kCommands.end()) {
            return client_->send(std::array{kNak});
        }
        std::array<std::uint8_t, 6> parameters{};
        const auto taken = std::span(parameters).first(command->parameters);
        return client_->take(taken) && client_->send((this->*command->answer)(taken)) && !left_;
    }

    // Every command has the same shape, whether it needs the session or not.
    // NOLINTBEGIN(readability-convert-member-functions-to-static)
    Bytes do_nothing(std::span<const std::uint8_t> /*none*/) { return ack(); }
    Bytes version(std::span<const std::uint8_t> /*none*/) { return ack(1, 2); }
    Bytes commands(std::span<const std::uint8_t> /*none*/) {
        Bytes map(1 + 256 / 8);
        map[0] = kAck;
        for (const Command& command : kCommands) {
            std::uint8_t& bits = map[1 + command.opcode / 8U];
            bits = static_cast<std::uint8_t>(bits | 1U << command.opcode % 8U);
        }
        return map;
    }
    Bytes name(std::span<const std::uint8_t> /*none*/) {
        constexpr std::string_view kName = "qfu-serprog";
        Bytes answer(1 + 16);
        answer[0] = kAck;
        std::ranges::copy(kName, answer.begin() + 1);
        return answer;
    }
    Bytes serial_buffer(std::span<const std::uint8_t> /*none*/) { return ack(0xFFFF, 2); }
    Bytes buses(std::span<const std::uint8_t> /*none*/) { return ack(kSpiBus, 1); }
    Bytes most_bytes(std::span<const std::uint8_t> /*none*/) { return ack(0x10000, 3); }
    Bytes synchronize(std::span<const std::uint8_t> /*none*/) { return {kNak, kAck}; }
    Bytes choose_bus(std::span<const std::uint8_t> bus) {
        return bus[0] == kSpiBus ? ack() : Bytes{kNak};
    }
    Bytes choose_frequency(std::span<const std::uint8_t> hertz) {
        return number(hertz) != 0 ? ack(number(hertz), 4) : Bytes{kNak};
    }
    // NOLINTEND(readability-convert-member-functions-to-static)

    /// The drivers of the pins: a programmer that lets go of them does not reach its chip.
    Bytes drive_pins(std::span<const std::uint8_t> on) {
        drives_ = on[0] != 0;
        return ack();
    }

    Bytes clock_chip(std::span<const std::uint8_t> counts) {
        Bytes sent(number(counts.first(3)));
        Bytes received(1 + number(counts.subspan(3)));
        left_ = !client_->take(sent);
        if (left_ || sent.empty() || !drives_) {
            return {kNak};
        }
        received[0] = kAck;
        chip_->clock(sent, std::span(received).subspan(1));
        return received;
    }

    SpiChip* chip_;
    Connection* client_;
    bool drives_ = true;
    bool left_ = false; ///< in the middle of a command
};

constexpr std::array<Session::Command, 13> Session::kCommands = {
    {
     // opcode, bytes after it, what is answered
        {0x00, 0, &Session::do_nothing},
     {0x01, 0, &Session::version},
     {0x02, 0, &Session::commands},
     {0x03, 0, &Session::name},
     {0x04, 0, &Session::serial_buffer},
     {0x05, 0, &Session::buses},
     {0x08, 0, &Session::most_bytes},
     {0x10, 0, &Session::synchronize},
     {0x11, 0, &Session::most_bytes},
     {0x12, 1, &Session::choose_bus},
     {0x13, 6, &Session::clock_chip},
     {0x14, 4, &Session::choose_frequency},
     {0x15, 1, &Session::drive_pins},
     }
};

} // namespace

SerprogServer::SerprogServer(SpiChip& chip, std::uint16_t port)
    : chip_(&chip), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const int on = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_, 1) != 0) {
        const int error = errno;
        close(listener_);
        throw std::system_error(error, std::generic_category(),
                                "port " + std::to_string(port) + " cannot be had");
    }
}

SerprogServer::~SerprogServer() {
    close(listener_);
}

std::uint16_t SerprogServer::port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::system_error(errno, std::generic_category(), "getsockname");
    }
    return ntohs(address.sin_port);
}

bool SerprogServer::serve_client(int stop) {
    constexpr int kNoLimit = -1;
    if (!readable(listener_, stop, kNoLimit)) {
        return false;
    }
    const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) {
        return true; // it has left before it was let in
    }
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const timeval minute{60, 0};
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &minute, sizeof minute);
    Connection client(socket, stop);
    Session(*chip_, client).run();
    return !stopped(stop);
}

} // namespace emulator
