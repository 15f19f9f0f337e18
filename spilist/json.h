// What spilist says, as JSON for scripts. Keys stay in the order in which they are written.
#pragma once

#include "diff.h"
#include "finding.h"
#include "match.h"

#include <string>
#include <vector>

namespace spilist {

/// What is wrong with a list.
std::string json(const std::vector<Finding>& findings);

/// The list, too.
std::string json(const std::vector<Finding>& findings, const ChipList& list);

/// In place of the list, the record that a chip gets, and those that it hides.
std::string json(const std::vector<Finding>& findings, const ChipList& list, const Match& match);

std::string json(const std::vector<Difference>& differences);

} // namespace spilist
