// A bench for the program: a machine, a folder of files, and runs of the program on them.
#pragma once

#include "emulator/in_process.h"
#include "qfu/context.h"
#include "scratch_folder.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

constexpr std::uint64_t kSecond = 1'000'000'000; ///< of the emulated clock, in nanoseconds

/// `count` bytes that look random and are the same in every run; never a long row of one value.
Bytes pattern(std::size_t count, std::uint32_t seed = 1);

/// Flash is large and tests are not optimised, so these two are quick whatever calls them.
void fill(std::span<std::uint8_t> bytes, std::uint8_t value);
bool equal(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other);

/// A fault that strikes every such operation from the `nth` on.
inline emulator::Fault fault(emulator::FaultKind kind, emulator::Operation on,
                             std::uint64_t nth = 1) {
    emulator::Fault result;
    result.kind = kind;
    result.on = on;
    result.nth = nth;
    return result;
}

/// The words of a text, cut at spaces and line feeds.
std::vector<std::string> words(std::string_view line);

/// What a person sees of a run.
struct Outcome {
    EFI_STATUS status;
    std::string console;

    /// The console without carriage returns and without the listing of the arguments.
    std::string text() const;
};

/// Devices, files and firmware of one test. When it ends, everything must have been given back and
/// hardware must not have been misused, unless the test has taken the misuse.
class Lab {
  public:
    Lab();
    Lab(const Lab&) = delete;
    Lab& operator=(const Lab&) = delete;
    ~Lab();

    /// Puts an adapter on the bus, the first on device 2, the next on device 3 and so on.
    emulator::Adapter& adapter(std::uint16_t device, std::uint16_t vendor = 0x1E5D);
    emulator::Adapter& adapter_at(emulator::PciAddress address, std::uint16_t device,
                                  std::uint16_t vendor = 0x1E5D, std::uint8_t revision = 0x11);

    /// Puts a chip behind the adapter's chip select 1.
    emulator::SpiChip& chip(emulator::Adapter& adapter, std::string_view part,
                            emulator::BusyTimes times = {});

    /// Puts a parallel chip behind the adapter's chip select 0.
    emulator::NorChip& nor_chip(emulator::Adapter& adapter, std::uint32_t id,
                                emulator::BusyTimes times = {});

    /// An adapter of the interface kind with a chip: 1 indexed, 2 window in BAR 2, 4 window in BAR
    /// 0.
    emulator::SpiChip& kind(int flash_if, std::string_view part = "W25X40",
                            emulator::BusyTimes times = {});

    void write_file(const std::string& name, std::span<const std::uint8_t> bytes);
    void write_file(const std::string& name, std::string_view text);
    Bytes read_file(const std::string& name) const;
    std::string read_text(const std::string& name) const;
    const std::filesystem::path& folder() const { return folder_.path(); }

    /// Runs the program with these arguments and presses the keys in turn.
    Outcome run(std::string_view arguments, std::string_view keys = "");
    Outcome run(const std::vector<std::string>& arguments, std::string_view keys = "");

    /// Prepares for calls of single routines: starts the firmware and attaches the program to it.
    void attach();

    void use_shell(emulator::Shell shell) { shell_ = shell; }

    emulator::Firmware& firmware() { return *firmware_; }
    emulator::Machine& machine() { return *machine_; }
    emulator::VirtualClock& clock() { return clock_; }
    emulator::FirmwareFaults& faults() { return firmware_->faults(); }

    /// What was printed since the last run or look.
    std::string printed();

    /// The cycles on the flash bus since this was last called, a line each.
    std::string cycles();

    /// The register accesses since this was last called, a line each; the first call starts to
    /// listen.
    std::string registers();

    /// Keeps no more lines; for tests that poll millions of times.
    void stop_listening();

    /// Misuse since this was last called; the test knows about it.
    std::vector<std::string> take_misuses();

    /// Lets the test's end overlook keys that were asked for in vain.
    void expect_starvation() { starvation_expected_ = true; }

  private:
    ScratchFolder folder_;
    emulator::VirtualClock clock_;
    std::unique_ptr<emulator::Machine> machine_;
    std::unique_ptr<emulator::Firmware> firmware_;
    emulator::Shell shell_ = emulator::Shell::kCurrent;
    std::uint8_t next_device_ = 2;
    std::size_t seen_ = 0;
    std::string cycles_;
    std::string registers_;
    bool starvation_expected_ = false;
};

/// A lab and the run's context, for calls of an adapter's operations.
class Discovered {
  public:
    Discovered() = default;
    Discovered(const Discovered&) = delete;
    Discovered& operator=(const Discovered&) = delete;
    ~Discovered();

    /// Loads the chip list and discovers the lab's one adapter.
    QFU_ADAPTER& discover();

    Lab lab;
    QFU_CONTEXT context{};
};

/// The lab's one adapter with a SPI chip.
class Probed : public Discovered {
  public:
    /// Puts an adapter of the kind with the part on the bus; its chip is never busy by default.
    explicit Probed(int flash_if, std::string_view part = "W25X40",
                    emulator::BusyTimes times = emulator::kNeverBusy);
    /// Puts the adapter model with the part on the bus.
    Probed(std::uint16_t device, std::string_view part);

    emulator::SpiChip& chip;
};

/// The chip list that is built from the shipped source.
const Bytes& shipped_chip_list();

} // namespace lab
