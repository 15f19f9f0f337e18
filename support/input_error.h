// Input that cannot be used.
#pragma once

#include <stdexcept>

namespace support {

/// The message says what is wrong and where, for the person who wrote the input.
class InputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace support
