// The shell's file functions over a folder of the host, which the shell sees as the volume FS0:.
#pragma once

#include "call_faults.h"
#include "efi.h"
#include "hardware/journal.h"
#include "pool.h"

#include <filesystem>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace emulator {

/// The text in UCS-2 with its terminating zero.
std::vector<CHAR16> widen(std::string_view text);

/// One open file or folder.
struct OpenFile;

/// File functions with the habits of a UEFI shell on a FAT volume: names match in any case,
/// wildcards match names, folders open like files, a file that was deleted elsewhere cannot be
/// read.
class ShellFiles {
  public:
    ShellFiles(std::filesystem::path folder, MemoryPool& pool, Journal& journal, CallFault& fault,
               CallFault& short_read);
    ~ShellFiles();

    /// Lets no one write to these files of the host, as if they were write-protected.
    void protect(std::vector<std::filesystem::path> files) { protected_ = std::move(files); }

    EFI_STATUS open_list(CHAR16* path, std::uint64_t mode, EFI_SHELL_FILE_INFO** list);
    EFI_STATUS free_list(EFI_SHELL_FILE_INFO** list);
    EFI_STATUS open_by_name(const CHAR16* name, std::uint64_t mode, SHELL_FILE_HANDLE* handle);
    EFI_STATUS close(SHELL_FILE_HANDLE handle);
    EFI_STATUS remove(SHELL_FILE_HANDLE handle);
    EFI_STATUS read(SHELL_FILE_HANDLE handle, std::uint64_t* size, void* buffer);
    EFI_STATUS write(SHELL_FILE_HANDLE handle, std::uint64_t size, const void* buffer);
    EFI_STATUS flush(SHELL_FILE_HANDLE handle);
    EFI_STATUS position(SHELL_FILE_HANDLE handle, std::uint64_t* position);
    EFI_STATUS set_position(SHELL_FILE_HANDLE handle, std::uint64_t position);
    EFI_STATUS size(SHELL_FILE_HANDLE handle, std::uint64_t* size);

    /// Information from the pool, which the caller frees; null on failure.
    EFI_FILE_INFO* info(SHELL_FILE_HANDLE handle);

    std::size_t handles_out() const { return files_.size(); }
    std::size_t lists_out() const { return lists_.size(); }
    std::uint64_t flushes() const { return flushes_; }

  private:
    struct Entry;
    struct List;

    std::string narrow(const CHAR16* name) const;
    std::filesystem::path host_path(const std::string& volume_path) const;
    std::vector<std::string> matches(const std::string& pattern) const;
    EFI_STATUS open(const std::string& volume_path, std::uint64_t mode, SHELL_FILE_HANDLE* handle);
    bool is_protected(const std::filesystem::path& path) const;
    OpenFile* find(SHELL_FILE_HANDLE handle);

    std::filesystem::path folder_;
    MemoryPool* pool_;
    Journal* journal_;
    CallFault* fault_;
    CallFault* short_read_;
    std::vector<std::filesystem::path> protected_;
    std::vector<std::unique_ptr<OpenFile>> files_;
    std::vector<std::unique_ptr<List>> lists_;
    std::uint64_t flushes_ = 0;
};

} // namespace emulator
