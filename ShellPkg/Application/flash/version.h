// The release that the program says it is.
#pragma once

namespace flash {

inline constexpr char VERSION[] = "1.0.0";

} // namespace flash
