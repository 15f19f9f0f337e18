// What flash chips are asked to do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>

namespace emulator {

/// What a chip is asked to do.
enum class Operation : std::uint8_t {
    kUnknown,
    kReadId,
    kWriteEnable,
    kWriteDisable,
    kStatusEnable,
    kReadStatus,
    kWriteStatus,
    kRead,
    kProgram,
    kProgramWord,
    kSectorErase,
    kBlockErase,
    kChipErase,
    kQueryProtection,
    kProtectSector,
    kUnprotectSector,
    kReset,
    kUnlockBypass,
    kBypassReset,
};

/// What an operation does, and on which chips the program uses it.
struct OperationTraits {
    Operation operation;
    std::string_view name; ///< in machine files and logs
    bool on_spi;
    bool on_nor;
    bool addressed; ///< touches bytes of the chip
    bool changes;   ///< programs or erases them
    bool stores;    ///< changes something that the chip keeps
    bool answers;   ///< sends bytes
};

/// Every operation but the unknown one.
inline constexpr OperationTraits kOperations[] = {
  // operation, name, on SPI and NOR flash; is addressed, changes, stores, answers
    {Operation::kReadId,          "read id",          true,  true,  false, false, false, true },
    {Operation::kWriteEnable,     "write enable",     true,  false, false, false, false, false},
    {Operation::kWriteDisable,    "write disable",    true,  false, false, false, false, false},
    {Operation::kStatusEnable,    "status enable",    false, false, false, false, false, false},
    {Operation::kReadStatus,      "read status",      true,  false, false, false, false, true },
    {Operation::kWriteStatus,     "write status",     true,  false, false, false, true,  false},
    {Operation::kRead,            "read",             true,  true,  true,  false, false, true },
    {Operation::kProgram,         "program",          true,  true,  true,  true,  true,  false},
    {Operation::kProgramWord,     "program word",     false, false, true,  true,  true,  false},
    {Operation::kSectorErase,     "sector erase",     true,  true,  true,  true,  true,  false},
    {Operation::kBlockErase,      "block erase",      true,  false, true,  true,  true,  false},
    {Operation::kChipErase,       "chip erase",       true,  true,  true,  true,  true,  false},
    {Operation::kQueryProtection, "query protection", true,  false, true,  false, false, true },
    {Operation::kProtectSector,   "protect sector",   true,  false, false, false, true,  false},
    {Operation::kUnprotectSector, "unprotect sector", true,  false, false, false, true,  false},
    {Operation::kReset,           "reset",            false, true,  false, false, false, false},
    {Operation::kUnlockBypass,    "unlock bypass",    false, true,  false, false, false, false},
    {Operation::kBypassReset,     "bypass reset",     false, true,  false, false, false, false},
};
inline constexpr std::size_t kOperationCount = std::size(kOperations) + 1;

/// The operation's name, or the operation with that name.
std::string_view operation_name(Operation operation);
std::optional<Operation> operation_named(std::string_view name);

/// True for operations that touch bytes of the chip.
bool has_address(Operation operation);

} // namespace emulator
