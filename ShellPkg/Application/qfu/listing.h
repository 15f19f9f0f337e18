// What "-l" prints.
#pragma once

#include "adapter.h"

#include <span>

/// Prints each adapter and the chip of each slot that has one. The last of these slots becomes the
/// adapter's `current_slot`.
void qfu_list_adapters(std::span<QFU_ADAPTER> adapters);
