// What hardware has to tell about its treatment.
#pragma once

#include "bus_probe.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

/// Collects misuse (accesses that silicon would ignore or answer with nonsense) and, for those who
/// listen, the cycle log and the register accesses, one line each.
class Journal {
  public:
    using Listener = std::function<void(std::string_view line)>;

    void misuse(std::string what);
    /// The same for a chip, which software that waits can misuse a million times: the words become
    /// a text only when it is kept or told.
    void misuse(std::string_view place, std::initializer_list<std::string_view> words);

    /// Misuse so far; only the first few hundred are kept as text.
    const std::vector<std::string>& misuses() const { return misuses_; }
    std::uint64_t misuse_count() const { return misuse_count_; }

    /// Forgets the misuse so far and returns it.
    std::vector<std::string> take_misuses();

    void listen_to_cycles(Listener listener) { cycles_ = std::move(listener); }
    void listen_to_registers(Listener listener) { registers_ = std::move(listener); }
    /// Connects a probe beside those that are connected, or takes it away if it is.
    void connect(BusProbe& probe) { probes_.add(probe); }
    void disconnect(const BusProbe& probe) { probes_.remove(probe); }
    /// What stands for the connected probes, or null.
    BusProbe* probe() { return probes_.empty() ? nullptr : &probes_; }
    bool wants_cycles() const { return static_cast<bool>(cycles_); }
    bool wants_registers() const { return static_cast<bool>(registers_); }
    void cycle(std::string_view line) const { cycles_(line); }
    void register_access(std::string_view line) const { registers_(line); }

  private:
    static constexpr std::size_t kKept = 500;

    std::vector<std::string> misuses_;
    std::uint64_t misuse_count_ = 0;
    Listener cycles_;
    Listener registers_;
    BusProbes probes_;
};

} // namespace emulator
