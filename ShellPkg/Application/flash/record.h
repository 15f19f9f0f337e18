// The text file beside a saved range: where the bytes came from.
#pragma once

#include "outcome.h"
#include "qfu/adapter.h"

#include <cstdint>

namespace flash {

/// Bytes of a text file at most.
inline constexpr std::size_t RECORD_SIZE = 2048;

/// What a text file says.
struct Record {
    std::uint32_t place;   ///< bus in bits 8 to 15, device in bits 0 to 7
    std::uint32_t model;   ///< vendor ID in bits 16 to 31, device ID in bits 0 to 15
    std::uint32_t id;      ///< as the chip answers it, the first byte in bits 0 to 7
    std::uint32_t id_mask; ///< of the bytes that identify the chip
    std::uint32_t chip_select;
    std::uint32_t address;
    std::uint32_t size;
    QFU_SHA256::Sum sum;
};

/// Place and model of an adapter, as a record has them.
std::uint32_t place_of(const QFU_ADAPTER& adapter);
std::uint32_t model_of(const QFU_ADAPTER& adapter);

/// "01:04.0, 1e5d:c709"
Text place_text(std::uint32_t place, std::uint32_t model);

/// The bytes of an identification under a mask, such as "ef 30 13".
Text id_text(std::uint32_t id, std::uint32_t mask);

/// The text file of a record.
/// @param adapter   the adapter's number when it was saved
/// @param unstable  bytes that did not read the same each time
Text record_text(const Record& record, std::uint32_t adapter, std::uint32_t unstable);

/// Reads the text file of a saved range.
/// @returns refused when it is missing, or is not what a text file holds
Outcome read_record(const platform::FileName& file, Record& record);

} // namespace flash
