// Something that is wrong with a chip list.
#pragma once

#include <cstdint>
#include <string>

namespace spilist {

/// What comes of it.
enum class Effect : std::uint8_t {
    kRejected, ///< the program does not take the list
    kMisused,  ///< the program takes the list and does not serve a chip as it should
};

/// One reason why the program would reject or misuse a list.
struct Finding {
    std::string entry; ///< the record, or "list"
    std::string field;
    std::string what;
    Effect effect;
    std::uint32_t line = 0; ///< in the source; 0 when there is none
};

} // namespace spilist
