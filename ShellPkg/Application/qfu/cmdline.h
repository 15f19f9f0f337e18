// The command line: options found by name, and the request that they make.
#pragma once

#include "platform/efi.h"

#include <cstdint>

struct QFU_CONTEXT;

/// Fills the request half of `context` from `count` arguments, the command's name first; an absent
/// argument is null. Opens the request's file and loads the chip list. Prints the first error.
/// @returns EFI_SUCCESS when the request is ready, EFI_INVALID_PARAMETER after an error,
///          EFI_UNSUPPORTED after the help text or the command list, EFI_ABORTED without a context
EFI_STATUS qfu_parse_command_line(QFU_CONTEXT* context, std::uint32_t count,
                                  const char* const* argv);

/// The position of the first argument that equals `name`, looked for up to the first absent one; 0
/// when there is none. An option's value is the argument behind it.
std::uint32_t qfu_find_option(std::uint32_t count, const char* const* argv, const char* name);

/// True when every character is a decimal (hexadecimal) digit, and for an empty text.
bool qfu_is_decimal(const char* text);
bool qfu_is_hex(const char* text);

/// The value, modulo 2^32, of the digits from the start of the text up to the first other
/// character.
std::uint32_t qfu_parse_decimal(const char* text);
std::uint32_t qfu_parse_hex(const char* text);
