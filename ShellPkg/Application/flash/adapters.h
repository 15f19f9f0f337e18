// The adapters of the machine, the chips behind them, and the choice of one.
#pragma once

#include "chip.h"
#include "outcome.h"
#include "qfu/context.h"
#include "request.h"

#include <array>
#include <cstdint>
#include <span>

namespace flash {

/// One chip select of one adapter.
struct Choice {
    QFU_ADAPTER* adapter;
    std::size_t chip_select;
};

/// What was found. Chips that answered with an unknown identification count as chips.
struct Adapters : QFU_CONTEXT {
    /// What the chips answered, by adapter and chip select; 0 for no answer.
    std::array<std::array<std::uint32_t, 2>, QFU_MAX_ADAPTERS> id;

    std::span<QFU_ADAPTER> found() { return std::span(adapters).first(adapter_count); }

    /// True when there is a chip at this slot, known or not.
    bool has_chip(const QFU_ADAPTER& adapter, std::size_t slot) const {
        return id[adapter.index][slot] != 0;
    }

    /// The bits of `id` that identify the chip.
    static std::uint32_t id_mask(const Choice& choice);
};

/// Finds the adapters that the request's -model lets through, and their chips, twice. No chip is
/// written to.
/// @returns refused when there is none, when an access was refused, after a break, and when both
/// times differ
Outcome find_adapters(const Request& request, Adapters& adapters);

/// Chooses the chip that the request names. Prints what is there when it does not name one.
/// @returns refused when it does not name exactly one
Outcome choose(const Request& request, Adapters& adapters, Choice& choice);

/// Prints every adapter and its chips.
void print_adapters(Adapters& adapters);

/// One adapter and chip in a line, such as "adapter 0 at 01:04.0, 1e5d:c709, ...".
Text describe(const Adapters& adapters, const Choice& choice);

/// Leaves every chip as its driver wants it left.
void finish(Adapters& adapters);

} // namespace flash
