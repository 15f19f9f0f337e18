// Any bytes as a machine file: a machine that can be built, or a complaint for the person who wrote
// it.
#include "bench.h"
#include "machine/machine_file.h"
#include "support/input_error.h"

namespace {

void build(const emulator::MachineDescription& description) {
    const emulator::VirtualClock clock;
    emulator::ImageFiles images;
    const auto machine = emulator::build_machine(description, clock, images);
    machine->assign_bars();
    EXPECT_EQ(machine->journal().misuse_count(), 0U) << "misuse before a run";
    emulator::idle_faults(description, *machine);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kSmall = 1U << 20;
    static lab::Lab lab;
    lab.write_file("machine.toml", std::span(data, size));
    try {
        const auto description = emulator::load_machine_file(lab.folder() / "machine.toml");
        std::size_t cost = 0; // of building it; a file of the host is too much
        const auto add = [&](const auto& chip) {
            cost += !chip ? 0 : chip->image.empty() ? chip->part->size : kSmall + 1;
        };
        for (const emulator::AdapterDescription& adapter : description.adapters) {
            add(adapter.spi);
            add(adapter.nor);
        }
        if (cost <= kSmall) {
            build(description);
        }
    } catch (const support::InputError& error) {
        EXPECT_STRNE(error.what(), "");
    }
    return 0;
}
