// Stream-style access to files through the shell.
#pragma once

#include "console.h"
#include "platform/files.h"

#include <cstddef>
#include <cstdint>
#include <span>

/// The shell's list of files opened for one name. No file is a QFU_FILE that tests false; an empty
/// list counts as no file too. Every operation works on the list's usable entry.
using QFU_FILE = platform::FileList;

/// Where `qfu_fseek` puts the position.
enum class QFU_SEEK : std::uint8_t { START, CURRENT, END };

/// Opens `name` with mode "r" (read an existing file), "w" (read and write a new, empty file; an
/// earlier file of that name is deleted) or "a" (read and write, made when missing, at position 0).
/// Prints why it fails.
/// @returns the file, or no file, with nothing left open
QFU_FILE qfu_fopen(const char* name, const char* mode);

/// The entry that operations work on: the list's first, provided that it opened and is no
/// directory. Prints a message for every entry that is not usable. Asks for a break before each
/// entry, and finds none once there was one.
/// @returns the entry, or null
const platform::FileEntry* qfu_file_entry(const QFU_FILE& file);

/// Puts the position to the start or the end, or sets the current position again.
/// @returns 0, also for no file; -1 when there is no usable entry or the shell fails
int qfu_fseek(const QFU_FILE& file, QFU_SEEK origin);

/// The file's size in bytes, cut to 32 bits; 0 on any failure.
std::uint32_t qfu_fsize(const QFU_FILE& file);

/// Reads `buffer.size()` bytes at the position. At the end of the file the rest of the buffer keeps
/// what it held.
/// @param transferred  the bytes read
/// @returns the shell's status; EFI_ABORTED without a usable entry
EFI_STATUS qfu_fread(const QFU_FILE& file, std::span<std::uint8_t> buffer,
                     std::size_t& transferred);

/// Writes `data` at the position and brings it to the medium at once.
/// @returns the status of the write and the flush; EFI_ABORTED without a usable entry or data
EFI_STATUS qfu_fwrite(const QFU_FILE& file, std::span<const std::uint8_t> data);

/// `qfu_fprintf` with its arguments as a list.
int qfu_fprintf_list(const QFU_FILE& file, const char* format,
                     std::span<const QFU_FORMAT_ARGUMENT> arguments);

/// Writes a formatted text with CR LF line ends; a text longer than QFU_TEXT_SIZE - 1 bytes is cut.
/// @returns the length of the text before line ends grow, or -1 without memory
template <class... Arguments>
int qfu_fprintf(const QFU_FILE& file, const char* format, const Arguments&... arguments) {
    const std::array<QFU_FORMAT_ARGUMENT, sizeof...(Arguments)> list{
        QFU_FORMAT_ARGUMENT(arguments)...};
    return qfu_fprintf_list(file, format, list);
}

/// Closes every file of the list. @returns the shell's status
EFI_STATUS qfu_fclose(QFU_FILE& file);
