// What is wrong with a chip list.
#pragma once

#include "chip_list.h"
#include "finding.h"

#include <vector>

namespace spilist {

/// Everything that is wrong, in the order of the source's lines. Of a list file, what showed while
/// it was read comes first, then its opcodes, then its records.
std::vector<Finding> check(const ChipList& list);

/// Whether the program does not take a list with these findings.
bool is_rejected(const std::vector<Finding>& findings);

} // namespace spilist
