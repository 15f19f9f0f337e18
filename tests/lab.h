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

/// `count` bytes that look random and are the same in every run; never a long row of one value.
Bytes pattern(std::size_t count, std::uint32_t seed = 1);

/// Flash is large and tests are not optimised, so these two are quick whatever calls them.
void fill(std::span<std::uint8_t> bytes, std::uint8_t value);
bool equal(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other);

/// What a person sees of a run.
struct Outcome {
    EFI_STATUS status;
    std::string console;
};

/// Devices, files and firmware of one test. When it ends, everything must have been given back and
/// hardware must not have been misused, unless the test has taken the misuse.
class Lab {
  public:
    Lab();
    Lab(const Lab&) = delete;
    Lab& operator=(const Lab&) = delete;
    ~Lab();

    emulator::Adapter& adapter(std::uint16_t device, emulator::PciAddress address = {0, 2, 0},
                               std::uint8_t revision = 0x11);

    void write_file(const std::string& name, std::span<const std::uint8_t> bytes);
    void write_file(const std::string& name, std::string_view text);
    Bytes read_file(const std::string& name) const { return folder_.read(name); }
    const std::filesystem::path& folder() const { return folder_.path(); }

    /// Runs the program with these arguments and presses the keys in turn.
    Outcome run(std::string_view arguments, std::string_view keys = "");
    Outcome run(const std::vector<std::string>& arguments, std::string_view keys = "");

    /// Prepares for calls of single routines: starts the firmware and attaches the program to it.
    void attach(emulator::Shell shell = emulator::Shell::kCurrent);

    emulator::Firmware& firmware() { return *firmware_; }
    emulator::Machine& machine() { return *machine_; }
    emulator::VirtualClock& clock() { return clock_; }
    emulator::FirmwareFaults& faults() { return firmware_->faults(); }

    /// What was printed since the last run or look.
    std::string printed();

    /// The register accesses and flash cycles since this was last called, a line each; the first
    /// call starts to listen.
    std::string log();

    /// Misuse since this was last called; the test knows about it.
    std::vector<std::string> take_misuses();

  private:
    ScratchFolder folder_;
    emulator::VirtualClock clock_;
    std::unique_ptr<emulator::Machine> machine_;
    std::unique_ptr<emulator::Firmware> firmware_;
    std::size_t seen_ = 0;
    std::string log_;
};

/// A lab with one adapter whose chips are never busy, and the run's context, for calls of single
/// operations.
class Bench {
  public:
    explicit Bench(std::uint16_t device, std::string_view spi_part = "W25X40",
                   std::uint32_t nor_id = 0, std::uint8_t revision = 0x11);
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;
    ~Bench();

    /// Loads the chip list and discovers the adapter.
    QFU_ADAPTER& discover();

    emulator::SpiChip& spi() { return *model.spi().chip(); }
    emulator::NorChip& nor() { return *model.nor()->chip(); }

    Lab lab;
    emulator::Adapter& model;
    QFU_CONTEXT context{};
};

/// The chip list that is built from the shipped source.
const Bytes& shipped_chip_list();

} // namespace lab
