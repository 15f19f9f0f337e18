#include "driver_bridge.h"

#include "mailbox.h"
#include "support/input_error.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace emulator {
namespace {

/// @returns a descriptor, or whatever else is negative only after an error
int checked(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

/// Sends a message of QEMU's shared memory protocol: a number, and a descriptor when it is not -1.
void send_number(int socket, std::int64_t number, int descriptor = -1) {
    iovec part{&number, sizeof number};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    }
    checked(static_cast<int>(sendmsg(socket, &message, MSG_NOSIGNAL)), "sendmsg");
}

/// What the device wants to hear first: version, its own number, the memory, and the doorbell of
/// each other.
void introduce(int socket, int memory, int doorbell) {
    constexpr std::int64_t kVersion = 0;
    constexpr std::int64_t kMemory = -1;
    send_number(socket, kVersion);
    send_number(socket, mailbox::kGuest);
    send_number(socket, kMemory, memory);
    send_number(socket, mailbox::kProcess, doorbell);
}

std::uint32_t config_address(PciAddress at) {
    return std::uint32_t{at.bus} << 24 | std::uint32_t{at.device} << 16 |
           std::uint32_t{at.function} << 8;
}

/// The adapter at a configuration address, which is there: the driver asks for no other.
Adapter* adapter_at(const Machine& machine, std::uint64_t address) {
    const auto found = std::ranges::find_if(machine.adapters(), [&](const auto& adapter) {
        return config_address(adapter->address()) == (address & 0xFFFFFF00);
    });
    return found == machine.adapters().end() ? nullptr : found->get();
}

std::uint32_t carry_out(Machine& machine, mailbox::Cycle cycle, std::uint64_t address,
                        std::uint32_t value, int width) {
    const auto offset = static_cast<std::uint32_t>(address & 0xFF);
    switch (cycle) {
    case mailbox::Cycle::kConfigRead: {
        Adapter* adapter = adapter_at(machine, address);
        return adapter == nullptr ? all_ones(width) : adapter->config_read(offset, width);
    }
    case mailbox::Cycle::kConfigWrite:
        if (Adapter* adapter = adapter_at(machine, address)) {
            adapter->config_write(offset, value, width);
        }
        return 0;
    case mailbox::Cycle::kMemoryRead:
        return machine.memory_read(address, width);
    case mailbox::Cycle::kMemoryWrite:
        machine.memory_write(address, value, width);
        return 0;
    case mailbox::Cycle::kDriverLoaded:
        return 0;
    }
    return all_ones(width);
}

} // namespace

DriverBridge::DriverBridge(Machine& machine) {
    memory_ = checked(memfd_create("adapters", MFD_CLOEXEC), "memfd_create");
    checked(ftruncate(memory_, mailbox::kSize), "ftruncate");
    void* memory = mmap(nullptr, mailbox::kSize, PROT_READ | PROT_WRITE, MAP_SHARED, memory_, 0);
    if (memory == MAP_FAILED) {
        checked(-1, "mmap");
    }
    mailbox_ = new (memory) mailbox::Mailbox{};
    doorbell_ = checked(eventfd(0, EFD_CLOEXEC), "eventfd");
    std::array<int, 2> pair{};
    checked(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), "socketpair");
    ours_ = pair[0];
    qemus_ = pair[1];
    checked(fcntl(qemus_, F_SETFD, 0), "fcntl"); // the one that QEMU inherits
    introduce(ours_, memory_, doorbell_);
    present(machine);
    mailbox_->ready.store(mailbox::kReady, std::memory_order_release);
}

DriverBridge::~DriverBridge() {
    handed_over();
    close(ours_);
    close(doorbell_);
    munmap(mailbox_, mailbox::kSize);
    close(memory_);
}

std::vector<std::string> DriverBridge::arguments() const {
    // The last device of bus 0, where no adapter sits that the program would find.
    return {"-chardev", "socket,id=adapters,fd=" + std::to_string(qemus_), "-device",
            "ivshmem-doorbell,chardev=adapters,vectors=1,addr=0x1f"};
}

void DriverBridge::handed_over() {
    if (qemus_ >= 0) {
        close(std::exchange(qemus_, -1));
    }
}

void DriverBridge::present(Machine& machine) {
    if (machine.adapters().size() > mailbox::kMostFunctions) {
        throw support::InputError("a guest with the bus driver has room for " +
                                  std::to_string(mailbox::kMostFunctions) + " adapters");
    }
    machine.assign_bars();
    std::uint64_t first = UINT64_MAX;
    std::uint64_t end = 0;
    std::uint32_t count = 0;
    for (const auto& adapter : machine.adapters()) {
        mailbox_->functions[count++] = config_address(adapter->address());
        for (int bar = 0; bar < 6; ++bar) {
            const std::uint64_t size = adapter->pci().bar_size(bar);
            const std::uint64_t base =
                adapter->pci().read(static_cast<std::uint32_t>(0x10 + 4 * bar), 4) & ~0xFU;
            if (size != 0) {
                first = std::min(first, base);
                end = std::max(end, base + size);
            }
        }
    }
    mailbox_->memory_first = first;
    mailbox_->memory_end = end;
    mailbox_->function_count = count;
    machine_ = &machine;
}

void DriverBridge::driver_loaded() {
    if (std::exchange(loaded_, true) && !next_.empty()) {
        present(*next_.front());
        next_.pop_front();
    }
}

void DriverBridge::answer() {
    const std::uint32_t number = mailbox_->asked.load(std::memory_order_acquire);
    const std::uint32_t width = mailbox_->width;
    if (number == mailbox_->answered || (width != 1 && width != 2 && width != 4)) {
        return;
    }
    if (mailbox_->cycle == mailbox::Cycle::kDriverLoaded) {
        driver_loaded();
    }
    mailbox_->value = carry_out(*machine_, mailbox_->cycle, mailbox_->address, mailbox_->value,
                                static_cast<int>(width));
    mailbox_->answered.store(number, std::memory_order_release);
}

void DriverBridge::serve() {
    std::array<pollfd, 2> waited_for{
        {{doorbell_, POLLIN, 0}, {ours_, POLLIN, 0}}
    };
    for (;;) {
        if (poll(waited_for.data(), waited_for.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            checked(-1, "poll");
        }
        if (waited_for[1].revents != 0) {
            return; // the device says nothing; its end does
        }
        std::uint64_t rings = 0;
        if (read(doorbell_, &rings, sizeof rings) == sizeof rings) {
            answer();
        }
    }
}

void DriverBridge::stop() {
    shutdown(ours_, SHUT_RDWR);
}

} // namespace emulator
