// What is wrong with a chip list.
#pragma once

#include "chip_list.h"

#include <string>
#include <vector>

namespace chiplist {

/// One reason why the program would reject a list or could not serve a chip with it.
struct Finding {
    std::string entry; ///< the record, or "list"
    std::string field;
    std::string what;
};

/// Every reason, in the order of the list.
std::vector<Finding> check(const ChipList& list);

} // namespace chiplist
