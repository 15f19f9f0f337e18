#include "qemu_bridge.h"

#include "hardware/hex.h"
#include "support/input_error.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace emulator {

struct QemuBridge::Function {
    Adapter* adapter;
    int ours;
    int qemus;
};

namespace {

/// Messages of QEMU's remote device protocol, in the byte order and alignment of the host.
enum class Command : std::int32_t {
    kMemoryMap = 0,
    kReply = 1,
    kConfigWrite = 2,
    kConfigRead = 3,
    kBarWrite = 4,
    kBarRead = 5,
    kInterrupts = 6,
    kReset = 7,
};

struct Header {
    Command command;
    std::uint64_t size; ///< bytes behind the header
};
static_assert(sizeof(Header) == 16);

struct ConfigAccess {
    std::uint32_t reg;
    std::uint32_t value;
    std::int32_t size;
};

struct BarAccess {
    std::uint64_t address; ///< in the guest's memory
    std::uint64_t value;
    std::uint32_t size;
    std::uint8_t is_memory;
};

/// The longest message is the memory map.
constexpr std::size_t kLongestPayload = 192;
using Payload = std::array<unsigned char, kLongestPayload>;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// Closes the descriptors that came along: guest memory and interrupts, which the adapters do not
/// use.
void close_descriptors(msghdr& message) {
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const std::size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            close(descriptor);
        }
    }
}

/// Receives `size` bytes. @returns false when the other side has closed
bool receive(int socket, void* to, std::size_t size) {
    auto* bytes = static_cast<unsigned char*>(to);
    while (size > 0) {
        constexpr std::size_t kMostDescriptors = 16;
        alignas(cmsghdr) std::array<char, CMSG_SPACE(kMostDescriptors * sizeof(int))> control{};
        iovec part{bytes, size};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t got = recvmsg(socket, &message, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        close_descriptors(message);
        bytes += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool reply(int socket, std::uint64_t value) {
    struct {
        Header header;
        std::uint64_t value;
    } const message{
        {Command::kReply, sizeof value},
        value
    };
    return send(socket, &message, sizeof message, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sizeof message);
}

template <class Access>
Access payload_as(const Payload& payload) {
    Access access{};
    std::memcpy(&access, payload.data(), sizeof access);
    return access;
}

std::uint64_t all_ones(std::uint32_t size) {
    return size >= 8 ? UINT64_MAX : (std::uint64_t{1} << (8 * size)) - 1;
}

std::uint64_t carry_out(Adapter& adapter, Command command, const Payload& payload) {
    switch (command) {
    case Command::kConfigRead: {
        const auto access = payload_as<ConfigAccess>(payload);
        return adapter.config_read(access.reg, access.size);
    }
    case Command::kConfigWrite: {
        const auto access = payload_as<ConfigAccess>(payload);
        adapter.config_write(access.reg, access.value, access.size);
        return 0;
    }
    case Command::kBarRead: {
        const auto access = payload_as<BarAccess>(payload);
        const auto at = adapter.pci().locate(access.address);
        return at ? adapter.read(at, static_cast<int>(access.size)) : all_ones(access.size);
    }
    case Command::kBarWrite: {
        const auto access = payload_as<BarAccess>(payload);
        if (const auto at = adapter.pci().locate(access.address)) {
            adapter.write(at, static_cast<std::uint32_t>(access.value),
                          static_cast<int>(access.size));
        }
        return 0;
    }
    default:
        return 0;
    }
}

bool wants_reply(Command command) {
    return command != Command::kMemoryMap && command != Command::kInterrupts;
}

} // namespace

QemuBridge::QemuBridge(Machine& machine) : machine_(&machine) {
    for (const auto& adapter : machine_->adapters()) {
        std::array<int, 2> pair{};
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) != 0) {
            fail("socketpair");
        }
        functions_.push_back({adapter.get(), pair[0], pair[1]});
    }
}

QemuBridge::~QemuBridge() {
    handed_over();
    for (const Function& function : functions_) {
        close(function.ours);
    }
}

std::vector<std::string> QemuBridge::arguments() const {
    std::vector<std::string> result;
    std::set<unsigned> buses;
    for (const Function& function : functions_) {
        buses.insert(function.adapter->address().bus);
    }
    buses.erase(0);
    unsigned number = 0;
    for (const unsigned bus : buses) {
        if (bus != ++number) {
            throw support::InputError("a guest numbers its buses without gaps; there is no bus " +
                                      std::to_string(number));
        }
        // Firmware numbers bridges in the order of their places on bus 0.
        const std::string n = std::to_string(bus);
        result.insert(result.end(), {"-device", "pci-bridge,id=bus" + n + ",chassis_nr=" + n +
                                                    ",bus=pcie.0,addr=0x" + hex(0x10 + bus, 2)});
    }
    for (const Function& function : functions_) {
        const PciAddress at = function.adapter->address();
        const std::string bus = at.bus == 0 ? "pcie.0" : "bus" + std::to_string(at.bus);
        result.insert(result.end(),
                      {"-device", "x-pci-proxy-dev,fd=" + std::to_string(function.qemus) +
                                      ",bus=" + bus + ",addr=0x" + hex(at.device, 2) + "." +
                                      std::to_string(at.function)});
    }
    return result;
}

void QemuBridge::handed_over() {
    for (Function& function : functions_) {
        if (function.qemus >= 0) {
            close(std::exchange(function.qemus, -1));
        }
    }
}

bool QemuBridge::answer(Function& function) {
    Header header{};
    Payload payload{};
    if (!receive(function.ours, &header, sizeof header) || header.size > payload.size() ||
        !receive(function.ours, payload.data(), header.size)) {
        return false;
    }
    const std::uint64_t value = carry_out(*function.adapter, header.command, payload);
    return !wants_reply(header.command) || reply(function.ours, value);
}

void QemuBridge::stop() {
    for (const Function& function : functions_) {
        shutdown(function.ours, SHUT_RDWR);
    }
}

void QemuBridge::serve() {
    std::vector<pollfd> sockets;
    for (const Function& function : functions_) {
        sockets.push_back({function.ours, POLLIN, 0});
    }
    std::size_t open = sockets.size();
    while (open > 0) {
        if (poll(sockets.data(), sockets.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail("poll");
        }
        for (std::size_t i = 0; i < sockets.size(); ++i) {
            if (sockets[i].revents != 0 && !answer(functions_[i])) {
                sockets[i].fd = -1;
                --open;
            }
        }
    }
}

} // namespace emulator
