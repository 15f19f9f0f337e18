#include "image_files.h"

#include "support/input_error.h"
#include "support/output_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace emulator {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const fs::path& name, const std::string& what) {
    throw support::InputError(name.string() + ": " + what);
}

/// A descriptor that is closed unless somebody takes it.
class Descriptor {
  public:
    explicit Descriptor(int file) : file_(file) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (file_ >= 0) {
            close(file_);
        }
    }
    int get() const { return file_; }
    int take() { return std::exchange(file_, -1); }

  private:
    int file_;
};

void make_erased(const fs::path& name, std::size_t size) {
    support::OutputFile file(name, {});
    file.write(std::string(size, '\xFF'));
    file.finish();
}

/// Opens a file for reading and, when it can be, for writing.
Descriptor open_image(const fs::path& name, bool& read_only) {
    const int file = ::open(name.c_str(), O_RDWR | O_CLOEXEC);
    read_only = file < 0 && (errno == EACCES || errno == EROFS || errno == EPERM);
    return Descriptor(read_only ? ::open(name.c_str(), O_RDONLY | O_CLOEXEC) : file);
}

} // namespace

ImageFiles::~ImageFiles() {
    for (const Image& image : images_) {
        munmap(image.bytes.data(), image.bytes.size());
        close(image.file);
    }
}

std::span<std::uint8_t> ImageFiles::open(const fs::path& name, std::size_t size) {
    if (name.empty()) {
        return {};
    }
    struct stat there {};
    if (stat(name.c_str(), &there) != 0 && errno == ENOENT) {
        make_erased(name, size);
    } else if (S_ISDIR(there.st_mode)) {
        fail(name, "is a folder; it must be a file of " + std::to_string(size) + " bytes");
    }
    bool read_only = false;
    Descriptor file = open_image(name, read_only);
    if (file.get() < 0 || fstat(file.get(), &there) != 0) {
        fail(name, std::string("cannot be read: ") + std::strerror(errno));
    }
    if (!S_ISREG(there.st_mode) || static_cast<std::size_t>(there.st_size) != size) {
        fail(name, "holds " + std::to_string(there.st_size) + " bytes; it must hold the " +
                       std::to_string(size) + " bytes of its chip");
    }
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        fail(name, "is in use by another run");
    }
    // Room that the file has not yet taken could be missing in the middle of the run.
    if (!read_only && fallocate(file.get(), 0, 0, there.st_size) != 0 && errno == ENOSPC) {
        fail(name, std::string("cannot be written: ") + std::strerror(errno));
    }
    void* bytes = mmap(nullptr, size, PROT_READ | PROT_WRITE, read_only ? MAP_PRIVATE : MAP_SHARED,
                       file.get(), 0);
    if (bytes == MAP_FAILED) {
        fail(name, std::string("cannot be mapped: ") + std::strerror(errno));
    }
    images_.push_back({
        name, {static_cast<std::uint8_t*>(bytes), size},
         file.take(), read_only
    });
    return images_.back().bytes;
}

std::vector<fs::path> ImageFiles::names() const {
    std::vector<fs::path> names;
    for (const Image& image : images_) {
        names.push_back(image.name);
    }
    return names;
}

std::vector<fs::path> ImageFiles::read_only() const {
    std::vector<fs::path> names;
    for (const Image& image : images_) {
        if (image.read_only) {
            names.push_back(image.name);
        }
    }
    return names;
}

bool ImageFiles::Image::is_kept() const {
    if (!read_only) {
        return true;
    }
    std::vector<std::uint8_t> on_disk(bytes.size());
    return pread(file, on_disk.data(), on_disk.size(), 0) == static_cast<ssize_t>(on_disk.size()) &&
           std::ranges::equal(bytes, on_disk);
}

void ImageFiles::expect_kept() const {
    for (const Image& image : images_) {
        if (!image.is_kept()) {
            fail(image.name, "is read-only; what was written to its chip is lost");
        }
    }
}

} // namespace emulator
