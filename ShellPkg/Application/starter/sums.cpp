#include "sums.h"

#include "qfu/sha256.h"
#include "shell_variable.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace {

EFI_GUID file_system_guid = SIMPLE_FILE_SYSTEM_PROTOCOL;

constexpr std::size_t kHexDigits = 64;
constexpr std::size_t kMostLetters = 255;

/// A file that is open for reading.
class File {
  public:
    File(EFI_FILE_HANDLE root, const char16_t* name) {
        if (EFI_ERROR(root->Open(root, &file_,
                                 reinterpret_cast<CHAR16*>(const_cast<char16_t*>(name)),
                                 EFI_FILE_MODE_READ, 0))) {
            file_ = nullptr;
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() {
        if (file_ != nullptr) {
            file_->Close(file_);
        }
    }
    bool is_open() const { return file_ != nullptr; }

    /// Fills `buffer` as far as the file goes. @returns false when it cannot be read
    bool read(std::span<std::uint8_t> buffer, std::size_t& got) {
        UINTN size = buffer.size();
        const EFI_STATUS status = file_->Read(file_, &size, buffer.data());
        got = size;
        return !EFI_ERROR(status);
    }

  private:
    EFI_FILE_HANDLE file_ = nullptr;
};

std::array<std::uint8_t, 0x4000> buffer;

/// Reads the list byte by byte, through a buffer of its own.
class Lines {
  public:
    explicit Lines(File& file) : file_(file) {}

    /// The next byte; 0 at the end.
    std::uint8_t next() {
        if (at_ == got_) {
            at_ = 0;
            if (!file_.read(bytes_, got_)) {
                got_ = 0;
            }
        }
        return at_ < got_ ? bytes_[at_++] : std::uint8_t{0};
    }

  private:
    File& file_;
    std::array<std::uint8_t, 512> bytes_{};
    std::size_t at_ = 0;
    std::size_t got_ = 0;
};

/// One line of the list: a sum in hexadecimal, two spaces, a name.
struct Entry {
    std::array<char, kHexDigits> sum{};
    std::array<char16_t, kMostLetters + 1> name{};
    std::size_t letters = 0;
};

/// @returns false at the end of the list
bool read_entry(Lines& lines, Entry& entry) {
    entry = {};
    for (char& digit : entry.sum) {
        digit = static_cast<char>(lines.next());
    }
    lines.next();
    lines.next();
    for (std::uint8_t letter = 0; (letter = lines.next()) != 0 && letter != '\n';) {
        if (entry.letters < kMostLetters) {
            entry.name[entry.letters++] = letter == '/' ? u'\\' : static_cast<char16_t>(letter);
        }
    }
    return entry.letters != 0;
}

bool is_as_listed(EFI_FILE_HANDLE root, const Entry& entry) {
    constexpr char kDigits[] = "0123456789abcdef";
    File file(root, entry.name.data());
    if (!file.is_open()) {
        return false;
    }
    QFU_SHA256 sha;
    for (std::size_t got = 1; got != 0;) {
        if (!file.read(buffer, got)) {
            return false;
        }
        sha.add(std::span(buffer).first(got));
    }
    const QFU_SHA256::Sum sum = sha.finish();
    for (std::size_t i = 0; i < kHexDigits; ++i) {
        if (entry.sum[i] != kDigits[(sum[i / 2] >> (i % 2 == 0 ? 4 : 0)) & 15]) {
            return false;
        }
    }
    return true;
}

} // namespace

void check_sums(EFI_SYSTEM_TABLE* system, EFI_HANDLE device) {
    static constexpr char16_t kList[] = u"\\SHA256SUMS";
    static constexpr char16_t kOk[] = {u'o', u'k'};
    std::span<const char16_t> result(kList, std::size(kList) - 1);
    void* found = nullptr;
    EFI_FILE_HANDLE root = nullptr;
    EFI_BOOT_SERVICES* boot = system->BootServices;
    if (!EFI_ERROR(boot->HandleProtocol(device, &file_system_guid, &found))) {
        auto* volume = static_cast<EFI_FILE_IO_INTERFACE*>(found);
        if (EFI_ERROR(volume->OpenVolume(volume, &root))) {
            root = nullptr;
        }
    }
    static Entry entry;
    if (root != nullptr) {
        File list(root, kList);
        Lines lines(list);
        // A list without an entry, which a cut stick may have, proves nothing.
        if (list.is_open() && read_entry(lines, entry)) {
            bool more = true;
            while (more && is_as_listed(root, entry)) {
                more = read_entry(lines, entry);
            }
            result = more ? std::span<const char16_t>(entry.name.data(), entry.letters)
                          : std::span<const char16_t>(kOk);
        }
        root->Close(root);
    }
    set_shell_variable(system, u"QfuSums", result);
}
