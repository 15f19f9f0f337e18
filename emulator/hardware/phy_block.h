// The SATA PHY test block of an adapter: pattern generators and checkers behind index/data pairs.
#pragma once

#include "clock.h"
#include "journal.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

/// What is wrong with a port.
enum class PhyFaultKind : std::uint8_t {
    kNoPass, ///< the checker does not find the pattern
    kNoLock, ///< the receiver does not lock
    kErrors, ///< the error counter shows `value`
    kCount,  ///< the PRBS counter shows `value`
};

/// The kinds' names in machine files, and the kind with a name.
std::vector<std::string_view> phy_fault_kind_names();
std::optional<PhyFaultKind> phy_fault_kind_named(std::string_view name);

/// One fault of one port. It strikes the reads that show it (status, error counter, latch) from the
/// `nth` on (the first is 1), `times` of them (0: for ever).
struct PhyFault {
    PhyFaultKind kind = PhyFaultKind::kNoPass;
    std::uint8_t port = 0;
    std::uint64_t nth = 1;
    std::uint64_t times = 0;
    std::uint32_t value = 0;
};

/// What sets the blocks of adapter models apart.
struct PhyModel {
    std::uint8_t generation; ///< 2 has a register pair for each port, others one for all
    std::uint8_t ports;
    std::uint8_t revision; ///< 0x10 of generation 3 has rate words of its own
};

/// The block, with the two registers of AHCI space that belong to it. Every port's transmitter is
/// looped back to its receiver.
///
/// A port wants its registers in order: reset and release, the rate and the pulse that loads it,
/// the pattern, the start; then status, errors and, behind the latch read, the PRBS counter.
class PhyBlock {
  public:
    PhyBlock(PhyModel model, std::string place, const Clock& clock, Journal& journal);

    /// True when the offset into the adapter's register space is one of the block's.
    bool contains(std::uint32_t offset) const;

    std::uint32_t read(std::uint32_t offset);
    void write(std::uint32_t offset, std::uint32_t value);

    void set_ports_implemented(std::uint32_t ports) { ports_implemented_ = ports; }
    void add_fault(const PhyFault& fault) { faults_.push_back({fault, 0}); }

    /// Comes up as at the start: no port runs, nothing is loaded.
    void power_up();

    /// True when the fault, by the order of adding, has struck so far.
    bool has_struck(std::size_t i) const { return faults_[i].met >= faults_[i].fault.nth; }

  private:
    struct Register;
    struct Rate;

    struct Port {
        std::uint32_t control = 0;
        std::uint32_t rate = 0;
        std::array<std::uint32_t, 6> pattern{};
        std::uint32_t counter = 0; ///< as latched
        std::uint32_t errors = 0;  ///< as of the high half's last read
        std::uint64_t settled_ns = 0;
        std::size_t preparation = 0;    ///< steps of it that were made
        std::uint8_t loaded = 0;        ///< pattern registers written since the reset, a bit each
        std::uint8_t unread_halves = 0; ///< of the latched counter: 2 high, 1 low
        bool error_low_is_fresh = false;
        bool in_reset = false;
        bool was_reset = false;
        bool rate_loaded = false;
        bool running = false;
    };

    /// A PHY test register as an index word selects it; tests false when there is none.
    struct Target {
        Port* port = nullptr;
        const Register* reg = nullptr;
        std::size_t number = 0; ///< of the port

        explicit operator bool() const { return port != nullptr; }
    };

    static const Register* find_register(std::uint32_t number);
    const Rate* find_rate(std::uint32_t word) const;
    Target select(std::size_t pair);

    std::uint32_t read_ahci(std::uint32_t offset);
    void write_ahci(std::uint32_t offset, std::uint32_t value);

    std::uint32_t read_register(const Target& target, std::string& meaning);
    std::uint32_t read_status(const Target& target, std::string& meaning);
    std::uint32_t read_errors(const Target& target);
    std::uint32_t read_counter(const Target& target);

    void write_register(const Target& target, std::uint32_t value, std::string& meaning);
    void write_rate(const Target& target, std::uint32_t word, std::string& meaning);
    void load_rate(const Target& target, const Rate& rate);
    void write_control(const Target& target, std::uint32_t word, std::string& meaning);
    void start(const Target& target, std::uint32_t word, std::string& meaning);
    void write_pattern(const Target& target, std::uint32_t value);
    void write_preparation(const Target& target, std::uint32_t value);

    bool wants_preparation(std::size_t port) const;
    void settle(Port& port) const;

    /// Counts a read that could show a fault of the kind. @returns the fault that strikes it, or
    /// null
    const PhyFault* striking(PhyFaultKind kind, std::size_t port);

    void log(const Target& target, char direction, std::uint32_t value, std::string_view meaning);
    void complain(const Target& target, std::string_view what);
    void complain(const std::string& what);

    struct Counted {
        PhyFault fault;
        std::uint64_t met;
    };

    PhyModel model_;
    std::string place_;
    const Clock* clock_;
    Journal* journal_;
    std::uint32_t host_control_;
    std::uint32_t ports_implemented_;
    std::array<std::uint32_t, 2> index_{};
    std::array<Port, 4> ports_;
    std::vector<Counted> faults_;
};

} // namespace emulator
