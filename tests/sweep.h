// A command of a session again and again, while one thing after another goes wrong.
#pragma once

#include "player/player.h"

#include <functional>

namespace session {

/// A command that is about to run. Each variant of it runs in a fork, so that the session goes on
/// as if nothing had happened.
class Sweep {
  public:
    /// What the command takes when nothing goes wrong. It lives in memory that forks share.
    struct GoodRun {
        Counts operations;
        std::array<std::uint64_t, emulator::kNamedCalls.size()> calls; ///< by the call's place
        std::uint64_t accesses;
        std::uint64_t misuses;
        std::array<char, 4096> console;
        std::array<std::uint8_t, 1 << 25> flash; ///< of all chips in a row
        std::size_t changes;
        std::array<std::uint64_t, 4096> change; ///< accesses that erase or program
    };

    Sweep(const Stage& stage, const Command& command, emulator::VirtualClock& clock,
          const std::filesystem::path& folder);

    static GoodRun& good();

    /// Returns what is wrong with a run, or "".
    using Judge = std::function<std::string(const Observation&)>;

    /// Lets the nth call of a kind fail, from the `first` on each `step`th.
    void fail_calls(std::string_view kind, std::uint64_t first, std::uint64_t step,
                    const Judge& judge) const;

    /// Takes power away in the nth access of the first adapter. With power back, `repair` says what
    /// is wrong, or "".
    void lose_power(std::uint64_t nth, const std::function<std::string()>& repair) const;

    Observation run(const std::function<void(emulator::Firmware&)>& prepare = {}) const {
        return session::run(stage_, command_, clock_, folder_, false, prepare);
    }
    Observation run(const std::string& line) const;

    const Stage& stage() const { return stage_; }
    const Command& command() const { return command_; }
    const std::filesystem::path& folder() const { return folder_; }

  private:
    void in_fork(const std::string& what, const std::function<std::string()>& variant) const;

    const Stage& stage_;
    const Command& command_;
    emulator::VirtualClock& clock_;
    const std::filesystem::path& folder_;
    std::uint64_t accesses_before_;
    lab::Files files_;
};

/// The contents of all chips in a row.
lab::Bytes flash_of(const Stage& stage);

} // namespace session
