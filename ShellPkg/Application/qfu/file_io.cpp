#include "file_io.h"

#include "platform/pool.h"
#include "platform/shell.h"

#include <string_view>

namespace {

using platform::FileEntry;
using platform::FileHandle;
using platform::FileName;

constexpr char NOT_DELETED[] = "Error line %d. The file %s can't be deleted.\n";

/// Widens `name`; the part of a name that no argument can have is cut.
void widen(const char* name, FileName& out) {
    std::size_t length = 0;
    for (; name[length] != 0 && length < FileName::CAPACITY - 1; ++length) {
        out.text[length] = static_cast<unsigned char>(name[length]);
    }
    out.text[length] = 0;
}

/// Makes the file and closes it again, so that its list can be opened.
bool create(const FileName& name) {
    FileHandle handle;
    return handle.open(name, platform::ACCESS_CREATE) == EFI_SUCCESS;
}

/// Deletes the file that `list` holds, after closing it there. Prints why it fails.
bool remove(QFU_FILE& list, const FileName& name) {
    if (list.close() != EFI_SUCCESS) {
        platform::print(NOT_DELETED, {1626, name.text});
        return false;
    }
    FileHandle handle;
    if (handle.open(name, platform::ACCESS_CREATE) != EFI_SUCCESS) {
        platform::print("Error line %d. The file %s can't be created.\r\n", {1636, name.text});
        return false;
    }
    // Whether it is gone shows when its list is opened again.
    handle.remove();
    return true;
}

/// True when the list's file holds bytes, or may hold some because nobody tells.
bool has_contents(const QFU_FILE& list) {
    const FileEntry* entry = list.first();
    if (entry == nullptr || entry->Status != EFI_SUCCESS || platform::is_directory(entry->Handle)) {
        return false;
    }
    std::uint64_t size = 0;
    return platform::size(entry->Handle, size) != EFI_SUCCESS || size != 0;
}

QFU_FILE open_existing(const FileName& name) {
    QFU_FILE list;
    if (list.open(name, platform::ACCESS_READ) != EFI_SUCCESS) {
        platform::print("Error line %d. The file %s did not open.\r\n", {1605, name.text});
    }
    return list;
}

/// Opens for writing, making a missing file. With `empty` a file that exists is deleted first,
/// once, so that its old contents cannot show behind shorter new ones.
QFU_FILE open_or_create(const FileName& name, bool empty) {
    // A missing file is made once before and once after the deletion; a medium on which a file that
    // was made cannot be opened must not keep us here.
    int creations = empty ? 2 : 1;
    bool deleted = !empty;
    bool gone = !empty; // the name was not there any more behind the deletion
    QFU_FILE list;
    for (;;) {
        if (list.open(name, platform::ACCESS_READ_WRITE) != EFI_SUCCESS) {
            if (creations-- == 0 || !create(name)) {
                platform::print("Error line %d. The file %s can't be created.\r\n",
                                {1613, name.text});
                return {};
            }
            gone = gone || deleted;
        } else if (deleted) {
            if (!gone && has_contents(list)) {
                platform::print(NOT_DELETED, {1626, name.text});
                return {};
            }
            return list;
        } else {
            if (!remove(list, name)) {
                return {};
            }
            deleted = true;
        }
    }
}

/// Copies `text`, CR LF for every line feed; an end that does not fit is cut.
/// @returns the bytes copied
std::size_t expand_line_ends(std::string_view text, std::span<std::uint8_t> out) {
    std::size_t length = 0;
    for (const char c : text) {
        const std::size_t needed = c == '\n' ? 2 : 1;
        if (length + needed > out.size()) {
            break;
        }
        if (c == '\n') {
            out[length++] = '\r';
        }
        out[length++] = static_cast<std::uint8_t>(c);
    }
    return length;
}

} // namespace

QFU_FILE qfu_fopen(const char* name, const char* mode) {
    const std::string_view m = mode;
    FileName wide;
    if (m != "r" && m != "w" && m != "a") {
        widen(mode, wide);
        platform::print("Error %d=>No Supported this mode(%s)\n", {1587, wide.text});
        return {};
    }
    widen(name, wide);
    QFU_FILE file = m == "r" ? open_existing(wide) : open_or_create(wide, m == "w");
    if (!file) {
        return {};
    }
    if (file.empty()) {
        platform::print("File %s was not found.\r\n", {wide.text});
        return {};
    }
    if (qfu_file_entry(file) == nullptr) {
        return {};
    }
    return file;
}

const FileEntry* qfu_file_entry(const QFU_FILE& file) {
    bool failed = false;
    for (FileEntry* entry = file.first(); entry != nullptr; entry = file.next(entry)) {
        if (platform::break_requested()) {
            break;
        }
        if (entry->Status != EFI_SUCCESS) {
            platform::print("%dError. The file %s wouldn't open: %r.\r\n",
                            {1516, entry->FileName, entry->Status});
            failed = true;
        } else if (platform::is_directory(entry->Handle)) {
            platform::print("%dError.%s is a directory.\r\n", {1525, entry->FileName});
            failed = true;
        } else if (!failed) {
            return entry;
        }
    }
    return nullptr;
}

int qfu_fseek(const QFU_FILE& file, QFU_SEEK origin) {
    if (file.empty()) {
        return 0;
    }
    const FileEntry* entry = qfu_file_entry(file);
    if (entry == nullptr) {
        return -1;
    }
    std::uint64_t target = 0;
    EFI_STATUS status = EFI_SUCCESS;
    if (origin == QFU_SEEK::CURRENT) {
        status = platform::position(entry->Handle, target);
    } else if (origin == QFU_SEEK::END) {
        status = platform::size(entry->Handle, target);
    }
    if (status != EFI_SUCCESS || platform::set_position(entry->Handle, target) != EFI_SUCCESS) {
        return -1;
    }
    return 0;
}

std::uint32_t qfu_fsize(const QFU_FILE& file) {
    const FileEntry* entry = qfu_file_entry(file);
    std::uint64_t size = 0;
    if (entry == nullptr || platform::size(entry->Handle, size) != EFI_SUCCESS) {
        return 0;
    }
    return static_cast<std::uint32_t>(size);
}

EFI_STATUS qfu_fread(const QFU_FILE& file, std::span<std::uint8_t> buffer,
                     std::size_t& transferred) {
    transferred = 0;
    const FileEntry* entry = qfu_file_entry(file);
    if (entry == nullptr) {
        return EFI_ABORTED;
    }
    transferred = buffer.size();
    return platform::read(entry->Handle, buffer.data(), transferred);
}

EFI_STATUS qfu_fwrite(const QFU_FILE& file, std::span<const std::uint8_t> data) {
    const FileEntry* entry = data.empty() ? nullptr : qfu_file_entry(file);
    if (entry == nullptr) {
        return EFI_ABORTED;
    }
    const EFI_STATUS status = platform::write(entry->Handle, data.data(), data.size());
    return status != EFI_SUCCESS ? status : platform::flush(entry->Handle);
}

int qfu_fprintf_list(const QFU_FILE& file, const char* format,
                     std::span<const QFU_FORMAT_ARGUMENT> arguments) {
    const platform::Pool<char> text(QFU_TEXT_SIZE);
    if (!text) {
        platform::print("*tmp0_buffer==> resource is not enough.\n");
        return -1;
    }
    const platform::Pool<std::uint8_t> output(QFU_TEXT_SIZE);
    if (!output) {
        platform::print("*tmp1_buffer==> resource is not enough.\n");
        return -1;
    }
    const std::size_t length = qfu_format({text.get(), QFU_TEXT_SIZE}, format, arguments);
    const std::size_t expanded =
        expand_line_ends({text.get(), length}, {output.get(), QFU_TEXT_SIZE});
    qfu_fwrite(file, {output.get(), expanded});
    return static_cast<int>(length);
}

EFI_STATUS qfu_fclose(QFU_FILE& file) {
    return file.close();
}
