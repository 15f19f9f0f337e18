// What two chip lists have not in common.
#pragma once

#include "chip_list.h"

#include <string>
#include <vector>

namespace spilist {

/// One difference in what the program sees; parts and notes do not count.
struct Difference {
    std::string entry; ///< the record, or "list"
    std::string field; ///< "record" when only one list has it
    std::string before;
    std::string after; ///< empty, as `before` is, where there is none
};

/// The differences in the order of `a`, then of what only `b` has. Records are the same when their
/// identifications are.
std::vector<Difference> diff(const ChipList& a, const ChipList& b);

} // namespace spilist
