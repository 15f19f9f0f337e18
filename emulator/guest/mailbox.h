// The memory that a guest's bus driver and the adapters' process share. The driver asks for one bus
// cycle, rings the doorbell and waits; the process carries the cycle out and answers.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace emulator::mailbox {

/// QEMU's shared memory device. The doorbell register is in BAR 0, the memory in BAR 2.
inline constexpr std::uint32_t kVendorAndDevice = 0x11101AF4;
inline constexpr std::uint32_t kDoorbell = 12;
/// What the driver writes there: the number by which the device knows the adapters' process.
inline constexpr std::uint32_t kProcess = 0;
inline constexpr std::uint32_t kGuest = 1;

/// In `ready` when the process has filled the rest.
inline constexpr std::uint32_t kReady = 0x42554651;

/// Loading the driver is a cycle too: the process can put another machine there first.
enum class Cycle : std::uint32_t {
    kConfigRead,
    kConfigWrite,
    kMemoryRead,
    kMemoryWrite,
    kDriverLoaded
};

inline constexpr std::size_t kMostFunctions = 32;

/// Each field is read and written whole: the guest may map the memory like a device's registers.
struct Mailbox {
    std::atomic<std::uint32_t> ready;

    std::atomic<std::uint32_t> asked;    ///< number of the last request, written behind its fields
    std::atomic<std::uint32_t> answered; ///< number of the last answer, written behind `value`
    std::atomic<Cycle> cycle;
    std::atomic<std::uint64_t> address; ///< in memory, or of a configuration register as below
    std::atomic<std::uint32_t> width;   ///< bytes: 1, 2 or 4
    std::atomic<std::uint32_t> value;   ///< to write, or what was read

    /// What is asked for here. All other cycles are the firmware's own.
    std::atomic<std::uint64_t> memory_first;
    std::atomic<std::uint64_t> memory_end;
    std::atomic<std::uint32_t> function_count;
    /// As in a configuration address: bus << 24 | device << 16 | function << 8 | register.
    std::array<std::atomic<std::uint32_t>, kMostFunctions> functions;
};

inline constexpr std::size_t kSize = 4096;
static_assert(sizeof(Mailbox) == 184 && sizeof(Mailbox) <= kSize);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

} // namespace emulator::mailbox
