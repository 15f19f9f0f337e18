#include "operation.h"

#include <algorithm>

namespace emulator {

std::string_view operation_name(Operation operation) {
    const auto* found = std::ranges::find(kOperations, operation, &OperationTraits::operation);
    return found == std::end(kOperations) ? "unknown" : found->name;
}

std::optional<Operation> operation_named(std::string_view name) {
    const auto* found = std::ranges::find(kOperations, name, &OperationTraits::name);
    return found == std::end(kOperations) ? std::nullopt : std::optional(found->operation);
}

bool has_address(Operation operation) {
    const auto* found = std::ranges::find(kOperations, operation, &OperationTraits::operation);
    return found != std::end(kOperations) && found->addressed;
}

} // namespace emulator
