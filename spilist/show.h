// A chip list as people read it.
#pragma once

#include "chip_list.h"
#include "finding.h"

#include <ostream>

namespace spilist {

/// Prints a table, a line a record, and the notes behind it.
void show(const ChipList& list, std::ostream& out);

} // namespace spilist
