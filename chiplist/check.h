// What is wrong with a chip list.
#pragma once

#include "chip_list.h"
#include "finding.h"

#include <vector>

namespace chiplist {

/// Every reason that the list's opcodes and records give, in the order of the list.
std::vector<Finding> check(const ChipList& list);

} // namespace chiplist
