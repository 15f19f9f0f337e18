#include "shell_files.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace emulator {

struct OpenFile {
    std::filesystem::path path;
    bool directory;
    bool writable;
    int descriptor;
    std::uint64_t position;
};

/// The shell's record of a file, with the names that it points to.
struct ShellFiles::Entry {
    EFI_SHELL_FILE_INFO info;
    std::vector<CHAR16> full_name;
    std::vector<CHAR16> file_name;
};

struct ShellFiles::List {
    EFI_SHELL_FILE_INFO* head; ///< from the pool; the caller made it
    std::vector<std::unique_ptr<Entry>> entries;
};

namespace {

constexpr std::string_view kVolume = "FS0:";

char lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

bool same_name(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, {}, lower, lower);
}

bool has_wildcard(std::string_view name) {
    return name.find_first_of("*?[") != std::string_view::npos;
}

/// The shell's patterns: "*", "?" and "[set]", in any case of letters.
// NOLINTNEXTLINE(misc-no-recursion): as deep as the two are long
bool matches_pattern(std::string_view name, std::string_view pattern) {
    if (pattern.empty()) {
        return name.empty();
    }
    if (pattern[0] == '*') {
        return matches_pattern(name, pattern.substr(1)) ||
               (!name.empty() && matches_pattern(name.substr(1), pattern));
    }
    if (name.empty()) {
        return false;
    }
    const std::size_t set_end = pattern[0] == '[' ? pattern.find(']') : std::string_view::npos;
    if (set_end != std::string_view::npos) {
        const std::string_view set = pattern.substr(1, set_end - 1);
        const bool in_set =
            std::ranges::any_of(set, [&](char c) { return lower(c) == lower(name[0]); });
        return in_set && matches_pattern(name.substr(1), pattern.substr(set_end + 1));
    }
    return (pattern[0] == '?' || lower(pattern[0]) == lower(name[0])) &&
           matches_pattern(name.substr(1), pattern.substr(1));
}

/// Tidies a path the way the shell does, with its blind spot: ".." behind the first folder of a
/// relative path takes nothing away.
std::string clean(std::string path) {
    std::ranges::replace(path, '/', '\\');
    for (std::size_t at = path.find("\\.\\"); at != std::string::npos; at = path.find("\\.\\")) {
        path.erase(at, 2);
    }
    if (path.ends_with("\\.")) {
        path.pop_back();
    }
    for (std::size_t at = path.find("\\.."); at != std::string::npos; at = path.find("\\..")) {
        const std::string rest = path.substr(std::min(at + 4, path.size()));
        if (at + 3 < path.size() && path[at + 3] != '\\') {
            break;
        }
        path.erase(at + 1);
        const std::size_t slash = at == 0 ? std::string::npos : path.rfind('\\', at - 1);
        if (slash != std::string::npos) {
            path.erase(slash + 1);
        }
        path += rest;
    }
    for (std::size_t at = path.find("\\\\"); at != std::string::npos; at = path.find("\\\\")) {
        path.erase(at, 1);
    }
    return path;
}

std::vector<std::string> split(const std::string& path) {
    std::vector<std::string> parts;
    std::string part;
    for (const char c : path) {
        if (c != '\\') {
            part.push_back(c);
        } else if (!part.empty()) {
            parts.push_back(std::exchange(part, {}));
        }
    }
    if (!part.empty()) {
        parts.push_back(part);
    }
    return parts;
}

std::string last_part(const std::string& path) {
    const std::size_t slash = path.rfind('\\');
    return slash + 1 == path.size() ? "\\" : path.substr(slash + 1);
}

std::vector<std::string> names_in(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        names.push_back(entry.path().filename().string());
    }
    std::ranges::sort(names);
    return names;
}

/// The folder's entry of that name in any case; the name itself when there is none.
std::string name_on_disk(const std::filesystem::path& folder, const std::string& name) {
    std::error_code error;
    if (std::filesystem::exists(folder / name, error)) {
        return name;
    }
    const auto names = names_in(folder);
    const auto found =
        std::ranges::find_if(names, [&](const std::string& n) { return same_name(n, name); });
    return found == names.end() ? name : *found;
}

bool is_read_only(const struct stat& status) {
    return (status.st_mode & S_IWUSR) == 0;
}

std::uint64_t attributes(const struct stat& status) {
    return (S_ISDIR(status.st_mode) ? EFI_FILE_DIRECTORY : EFI_FILE_ARCHIVE) |
           (is_read_only(status) ? EFI_FILE_READ_ONLY : 0);
}

/// False once the file that the handle was opened on has been deleted.
bool still_there(const OpenFile& file) {
    struct stat status {};
    return fstat(file.descriptor, &status) == 0 && status.st_nlink > 0;
}

std::uint64_t size_of(const OpenFile& file) {
    struct stat status {};
    fstat(file.descriptor, &status);
    return static_cast<std::uint64_t>(status.st_size);
}

/// A path as it is from the root of the volume; there is one folder to start from, the root.
std::string absolute(std::string path) {
    if (path.size() >= kVolume.size() && same_name(path.substr(0, kVolume.size()), kVolume)) {
        path.erase(0, kVolume.size());
    } else if (path.empty() || path[0] != '\\') {
        path.insert(0, "\\");
    }
    path = clean(path);
    return path.empty() || path[0] != '\\' ? "\\" + path : path;
}

} // namespace

std::vector<CHAR16> widen(std::string_view text) {
    std::vector<CHAR16> result;
    for (const char c : text) {
        result.push_back(static_cast<unsigned char>(c));
    }
    result.push_back(0);
    return result;
}

ShellFiles::ShellFiles(std::filesystem::path folder, MemoryPool& pool, Journal& journal,
                       CallFault& fault, CallFault& short_read)
    : folder_(std::move(folder)), pool_(&pool), journal_(&journal), fault_(&fault),
      short_read_(&short_read) {}

ShellFiles::~ShellFiles() {
    for (const auto& file : files_) {
        ::close(file->descriptor);
    }
}

std::string ShellFiles::narrow(const CHAR16* name) const {
    std::string result;
    for (; *name != 0; ++name) {
        if (*name > 0xFF) {
            journal_->misuse("shell: a file name with a character above FF");
        }
        result.push_back(static_cast<char>(*name & 0xFF));
    }
    return result;
}

std::filesystem::path ShellFiles::host_path(const std::string& volume_path) const {
    std::filesystem::path path = folder_;
    for (const std::string& part : split(volume_path)) {
        if (part != ".") {
            path /= name_on_disk(path, part);
        }
    }
    return path;
}

std::vector<std::string> ShellFiles::matches(const std::string& pattern) const {
    std::vector<std::string> found = {""};
    for (const std::string& part : split(pattern)) {
        std::vector<std::string> next;
        for (const std::string& parent : found) {
            for (const std::string& name : names_in(host_path(parent))) {
                if (has_wildcard(part) ? matches_pattern(name, part) : same_name(name, part)) {
                    next.push_back(parent + "\\" + name);
                }
            }
        }
        found = next;
    }
    if (found == std::vector<std::string>{""}) {
        return {"\\"};
    }
    return found;
}

bool ShellFiles::is_protected(const std::filesystem::path& path) const {
    std::error_code error;
    return std::ranges::any_of(protected_, [&](const std::filesystem::path& file) {
        return std::filesystem::equivalent(path, file, error);
    });
}

EFI_STATUS ShellFiles::open(const std::string& volume_path, std::uint64_t mode,
                            SHELL_FILE_HANDLE* handle) {
    const std::filesystem::path path = host_path(volume_path);
    const bool writable = (mode & EFI_FILE_MODE_WRITE) != 0;
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        std::error_code error;
        if ((mode & EFI_FILE_MODE_CREATE) == 0 ||
            !std::filesystem::is_directory(path.parent_path(), error)) {
            return EFI_NOT_FOUND;
        }
        if (last_part(volume_path).find_first_of("\"*:<>?|") != std::string::npos) {
            return EFI_INVALID_PARAMETER;
        }
        const int created = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
        if (created < 0) {
            return EFI_DEVICE_ERROR;
        }
        ::close(created);
        ::stat(path.c_str(), &status);
    }
    const bool directory = S_ISDIR(status.st_mode);
    if (writable && !directory && (is_read_only(status) || is_protected(path))) {
        return EFI_ACCESS_DENIED;
    }
    const int descriptor = ::open(path.c_str(), writable && !directory ? O_RDWR : O_RDONLY);
    if (descriptor < 0) {
        return EFI_DEVICE_ERROR;
    }
    files_.push_back(
        std::make_unique<OpenFile>(OpenFile{path, directory, writable, descriptor, 0}));
    *handle = files_.back().get();
    return EFI_SUCCESS;
}

EFI_STATUS ShellFiles::open_list(CHAR16* path, std::uint64_t mode, EFI_SHELL_FILE_INFO** list) {
    if (*list == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    if (fault_->next_call_fails()) {
        return EFI_DEVICE_ERROR;
    }
    // The tidied path is never longer and goes back into the caller's buffer.
    const std::string name = clean(narrow(path));
    std::ranges::copy(widen(name), path);
    const std::size_t colon = name.find(':');
    if (colon != std::string_view::npos && !same_name(name.substr(0, colon + 1), kVolume)) {
        return EFI_INVALID_PARAMETER;
    }
    const std::vector<std::string> found = matches(absolute(name));
    if (found.empty()) {
        return EFI_NOT_FOUND;
    }
    auto opened = std::make_unique<List>(List{*list, {}});
    for (const std::string& file : found) {
        auto entry = std::make_unique<Entry>();
        entry->full_name = widen(std::string(kVolume) + file);
        entry->file_name = widen(last_part(file));
        entry->info.FullName = entry->full_name.data();
        entry->info.FileName = entry->file_name.data();
        entry->info.Status = open(file, mode, &entry->info.Handle);
        LIST_ENTRY& head = (*list)->Link;
        entry->info.Link = {&head, head.Blink};
        head.Blink->Flink = &entry->info.Link;
        head.Blink = &entry->info.Link;
        opened->entries.push_back(std::move(entry));
    }
    lists_.push_back(std::move(opened));
    return EFI_SUCCESS;
}

EFI_STATUS ShellFiles::free_list(EFI_SHELL_FILE_INFO** list) {
    const bool fails = fault_->next_call_fails();
    const auto found =
        std::ranges::find_if(lists_, [&](const auto& l) { return l->head == *list; });
    if (found != lists_.end()) {
        for (const auto& entry : (*found)->entries) {
            if (entry->info.Handle != nullptr) {
                std::erase_if(files_, [&](const auto& file) {
                    const bool same = file.get() == entry->info.Handle;
                    if (same) {
                        ::close(file->descriptor);
                    }
                    return same;
                });
            }
        }
        lists_.erase(found);
    } else if ((*list)->Link.Flink != &(*list)->Link) {
        journal_->misuse("shell: a file list freed that is not out");
        return EFI_INVALID_PARAMETER;
    }
    pool_->free(*list);
    *list = nullptr;
    return fails ? EFI_DEVICE_ERROR : EFI_SUCCESS;
}

EFI_STATUS ShellFiles::open_by_name(const CHAR16* name, std::uint64_t mode,
                                    SHELL_FILE_HANDLE* handle) {
    if (fault_->next_call_fails()) {
        return EFI_DEVICE_ERROR;
    }
    const std::string path = clean(narrow(name));
    const std::size_t colon = path.find(':');
    if (colon != std::string::npos && !same_name(path.substr(0, colon + 1), kVolume)) {
        return EFI_NOT_FOUND;
    }
    return open(absolute(path), mode, handle);
}

OpenFile* ShellFiles::find(SHELL_FILE_HANDLE handle) {
    for (const auto& file : files_) {
        if (file.get() == handle) {
            return file.get();
        }
    }
    journal_->misuse("shell: a file handle that is not open");
    return nullptr;
}

EFI_STATUS ShellFiles::close(SHELL_FILE_HANDLE handle) {
    const bool fails = fault_->next_call_fails();
    OpenFile* file = find(handle);
    if (file == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    ::close(file->descriptor);
    std::erase_if(files_, [&](const auto& f) { return f.get() == file; });
    return fails ? EFI_DEVICE_ERROR : EFI_SUCCESS;
}

EFI_STATUS ShellFiles::remove(SHELL_FILE_HANDLE handle) {
    const bool fails = fault_->next_call_fails();
    OpenFile* file = find(handle);
    if (file == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    std::error_code error;
    const bool gone =
        !fails && file->path != folder_ && std::filesystem::remove(file->path, error) && !error;
    ::close(file->descriptor);
    std::erase_if(files_, [&](const auto& f) { return f.get() == file; });
    return fails ? EFI_DEVICE_ERROR : gone ? EFI_SUCCESS : EFI_WARN_DELETE_FAILURE;
}

EFI_STATUS ShellFiles::read(SHELL_FILE_HANDLE handle, std::uint64_t* size, void* buffer) {
    OpenFile* file = find(handle);
    if (file == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    const bool is_short = short_read_->next_call_fails();
    if (fault_->next_call_fails() || !still_there(*file)) {
        return EFI_DEVICE_ERROR;
    }
    if (file->directory) {
        return EFI_BUFFER_TOO_SMALL;
    }
    const std::uint64_t end = size_of(*file);
    if (file->position > end) {
        return EFI_DEVICE_ERROR;
    }
    const std::uint64_t wanted = std::min(*size, end - file->position);
    const ssize_t got = pread(file->descriptor, buffer, is_short ? wanted / 2 : wanted,
                              static_cast<off_t>(file->position));
    if (got < 0) {
        return EFI_DEVICE_ERROR;
    }
    *size = static_cast<std::uint64_t>(got);
    file->position += *size;
    return EFI_SUCCESS;
}

EFI_STATUS ShellFiles::write(SHELL_FILE_HANDLE handle, std::uint64_t size, const void* buffer) {
    OpenFile* file = find(handle);
    if (file == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    if (fault_->next_call_fails() || !still_there(*file)) {
        return EFI_DEVICE_ERROR;
    }
    if (file->directory) {
        return EFI_UNSUPPORTED;
    }
    if (!file->writable) {
        return EFI_ACCESS_DENIED;
    }
    const ssize_t put = pwrite(file->descriptor, buffer, size, static_cast<off_t>(file->position));
    if (put < 0 || static_cast<std::uint64_t>(put) != size) {
        return EFI_VOLUME_FULL;
    }
    file->position += size;
    return EFI_SUCCESS;
}

EFI_STATUS ShellFiles::flush(SHELL_FILE_HANDLE handle) {
    OpenFile* file = find(handle);
    if (file == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    ++flushes_;
    return fault_->next_call_fails() ? EFI_DEVICE_ERROR : EFI_SUCCESS;
}

EFI_STATUS ShellFiles::position(SHELL_FILE_HANDLE handle, std::uint64_t* position) {
    OpenFile* file = find(handle);
    if (file == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    if (fault_->next_call_fails()) {
        return EFI_DEVICE_ERROR;
    }
    *position = file->position;
    return EFI_SUCCESS;
}

EFI_STATUS ShellFiles::set_position(SHELL_FILE_HANDLE handle, std::uint64_t position) {
    constexpr std::uint64_t kEnd = UINT64_MAX;
    OpenFile* file = find(handle);
    if (file == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    if (fault_->next_call_fails()) {
        return EFI_DEVICE_ERROR;
    }
    if (file->directory && position != 0) {
        return EFI_UNSUPPORTED;
    }
    file->position = position == kEnd ? size_of(*file) : position;
    return EFI_SUCCESS;
}

EFI_STATUS ShellFiles::size(SHELL_FILE_HANDLE handle, std::uint64_t* size) {
    OpenFile* file = find(handle);
    if (file == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    if (fault_->next_call_fails()) {
        *size = 0x5A5A5A5A; // nobody promises what a failed call leaves
        return EFI_DEVICE_ERROR;
    }
    *size = size_of(*file);
    return EFI_SUCCESS;
}

EFI_FILE_INFO* ShellFiles::info(SHELL_FILE_HANDLE handle) {
    OpenFile* file = find(handle);
    if (file == nullptr || fault_->next_call_fails()) {
        return nullptr;
    }
    struct stat status {};
    fstat(file->descriptor, &status);
    const std::vector<CHAR16> name = widen(file->path.filename().string());
    const std::size_t bytes = offsetof(EFI_FILE_INFO, FileName) + name.size() * sizeof(CHAR16);
    auto* info = static_cast<EFI_FILE_INFO*>(pool_->allocate(bytes));
    if (info == nullptr) {
        return nullptr;
    }
    std::memset(info, 0, bytes);
    info->Size = bytes;
    info->FileSize = static_cast<std::uint64_t>(status.st_size);
    info->PhysicalSize = info->FileSize;
    info->Attribute = attributes(status);
    std::memcpy(info->FileName, name.data(), name.size() * sizeof(CHAR16));
    return info;
}

} // namespace emulator
