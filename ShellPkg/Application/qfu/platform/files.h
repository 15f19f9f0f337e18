// Files through the shell's file functions.
#pragma once

#include "efi.h"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace platform {

/// Access asked for when a name is opened.
inline constexpr std::uint64_t ACCESS_READ = EFI_FILE_MODE_READ;
inline constexpr std::uint64_t ACCESS_READ_WRITE = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
inline constexpr std::uint64_t ACCESS_CREATE = ACCESS_READ_WRITE | EFI_FILE_MODE_CREATE;

/// A file name as the shell takes it: UCS-2, ended by a zero character. Holds 512 characters, the
/// longest argument that the program accepts.
struct FileName {
    static constexpr std::size_t CAPACITY = 513;
    CHAR16 text[CAPACITY];
};

/// One file of a list: the status of its open, its name and its handle, all the shell's.
using FileEntry = EFI_SHELL_FILE_INFO;

/// Owns the shell's list of the files that one name stands for; the files are closed with it.
/// Tests false when it owns no list.
class FileList {
  public:
    constexpr FileList() = default;
    FileList(FileList&& other) noexcept : head_(std::exchange(other.head_, nullptr)) {}
    FileList& operator=(FileList&& other) noexcept {
        std::swap(head_, other.head_);
        return *this;
    }
    ~FileList() { close(); }

    /// Opens every file that `name` stands for (wildcards are the shell's); gives up the list it
    /// had.
    /// @returns the shell's status; no list is owned unless it is EFI_SUCCESS
    EFI_STATUS open(const FileName& name, std::uint64_t access);

    /// Closes every file and frees the list. Does nothing without one.
    /// @returns the shell's status
    EFI_STATUS close();

    explicit operator bool() const { return head_ != nullptr; }
    bool empty() const { return first() == nullptr; }

    /// The list's entries in the shell's order; null past the last.
    FileEntry* first() const { return head_ == nullptr ? nullptr : next(head_); }
    FileEntry* next(FileEntry* entry) const {
        // The link is the first field of an entry, and of the list's own nameless head.
        auto* following = reinterpret_cast<FileEntry*>(entry->Link.Flink);
        return following == head_ ? nullptr : following;
    }

  private:
    FileEntry* head_ = nullptr;
};

/// True when the shell's information about the file carries the directory attribute.
bool is_directory(SHELL_FILE_HANDLE file);

/// Reads at the file's position, which moves on by the number of bytes read.
/// @param count  in: the bytes asked for; out: the bytes read, fewer at the end of the file
EFI_STATUS read(SHELL_FILE_HANDLE file, void* buffer, std::size_t& count);

/// Writes `count` bytes at the file's position, which moves on past them.
EFI_STATUS write(SHELL_FILE_HANDLE file, const void* data, std::size_t count);

/// Brings what was written to the medium.
EFI_STATUS flush(SHELL_FILE_HANDLE file);

/// The file's position and size in bytes.
EFI_STATUS position(SHELL_FILE_HANDLE file, std::uint64_t& out);
EFI_STATUS set_position(SHELL_FILE_HANDLE file, std::uint64_t position);
EFI_STATUS size(SHELL_FILE_HANDLE file, std::uint64_t& out);

/// Owns the handle of one file opened by name; closes it unless the file was removed.
class FileHandle {
  public:
    constexpr FileHandle() = default;
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    ~FileHandle() { close(); }

    /// Opens the file, and makes it when it is missing and `access` is ACCESS_CREATE. Closes the
    /// one it had. The shell takes the name as it is, without wildcards.
    EFI_STATUS open(const FileName& name, std::uint64_t access);

    /// Closes the file; does nothing without one.
    /// @returns the shell's status
    EFI_STATUS close();

    /// Deletes the opened file; the handle is gone afterwards, whatever the status.
    EFI_STATUS remove();

    explicit operator bool() const { return handle_ != nullptr; }

    /// The shell's handle, for the functions above; null without a file.
    SHELL_FILE_HANDLE get() const { return handle_; }

  private:
    SHELL_FILE_HANDLE handle_ = nullptr;
};

} // namespace platform
