#include "files.h"

#include "pool.h"
#include "system.h"

namespace platform {
namespace {

EFI_SHELL_PROTOCOL* shell() {
    return system().shell;
}

} // namespace

EFI_STATUS FileList::open(const FileName& name, std::uint64_t access) {
    close();
    if (shell() == nullptr) {
        return EFI_UNSUPPORTED;
    }
    // The shell adds to a list, so it is handed an empty one: a head that is linked to itself.
    auto* head = static_cast<FileEntry*>(pool_take(sizeof(FileEntry)));
    if (head == nullptr) {
        return EFI_OUT_OF_RESOURCES;
    }
    head->Link.Flink = &head->Link;
    head->Link.Blink = &head->Link;
    head_ = head;
    // The shell tidies the path ("." and "..") in the caller's own buffer.
    FileName path = name;
    const EFI_STATUS status = shell()->OpenFileList(path.text, access, &head_);
    if (status != EFI_SUCCESS) {
        close();
    }
    return status;
}

EFI_STATUS FileList::close() {
    if (head_ == nullptr) {
        return EFI_SUCCESS;
    }
    FileEntry* list = std::exchange(head_, nullptr);
    return shell()->FreeFileList(&list);
}

EFI_STATUS FileHandle::open(const FileName& name, std::uint64_t access) {
    close();
    if (shell() == nullptr) {
        return EFI_UNSUPPORTED;
    }
    return shell()->OpenFileByName(name.text, &handle_, access);
}

EFI_STATUS FileHandle::close() {
    return handle_ == nullptr ? EFI_SUCCESS : shell()->CloseFile(std::exchange(handle_, nullptr));
}

EFI_STATUS FileHandle::remove() {
    return shell()->DeleteFile(std::exchange(handle_, nullptr));
}

bool is_directory(SHELL_FILE_HANDLE file) {
    EFI_FILE_INFO* info = shell()->GetFileInfo(file);
    const bool directory = info != nullptr && (info->Attribute & EFI_FILE_DIRECTORY) != 0;
    pool_give_back(info);
    return directory;
}

EFI_STATUS read(SHELL_FILE_HANDLE file, void* buffer, std::size_t& count) {
    UINTN size = count;
    const EFI_STATUS status = shell()->ReadFile(file, &size, buffer);
    count = status == EFI_SUCCESS ? size : 0;
    return status;
}

EFI_STATUS write(SHELL_FILE_HANDLE file, const void* data, std::size_t count) {
    UINTN size = count;
    return shell()->WriteFile(file, &size, const_cast<void*>(data));
}

EFI_STATUS flush(SHELL_FILE_HANDLE file) {
    return shell()->FlushFile(file);
}

EFI_STATUS position(SHELL_FILE_HANDLE file, std::uint64_t& out) {
    UINT64 at = 0;
    const EFI_STATUS status = shell()->GetFilePosition(file, &at);
    out = at;
    return status;
}

EFI_STATUS set_position(SHELL_FILE_HANDLE file, std::uint64_t position) {
    return shell()->SetFilePosition(file, position);
}

EFI_STATUS size(SHELL_FILE_HANDLE file, std::uint64_t& out) {
    UINT64 bytes = 0;
    const EFI_STATUS status = shell()->GetFileSize(file, &bytes);
    out = bytes;
    return status;
}

} // namespace platform
