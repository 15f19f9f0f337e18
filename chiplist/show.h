// A chip list as people and scripts read it.
#pragma once

#include "chip_list.h"
#include "finding.h"

#include <nlohmann/json_fwd.hpp>
#include <ostream>

namespace chiplist {

/// Objects whose keys stay in the order in which they are written.
using Json = nlohmann::ordered_json;

/// Prints a table, a line a record, and the notes behind it.
void show(const ChipList& list, std::ostream& out);

Json to_json(const ChipList& list);
Json to_json(const Chip& chip);
Json to_json(const Finding& finding);

/// Gives records of `list` the parts and the note that `source` has for their identification.
void take_names(ChipList& list, const ChipList& source);

} // namespace chiplist
