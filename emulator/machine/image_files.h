// The files that keep flash contents from run to run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

namespace emulator {

/// Image files in use by a machine's chips. The files are mapped: what a chip holds is in its file
/// at once, however the process ends.
class ImageFiles {
  public:
    ImageFiles() = default;
    ImageFiles(const ImageFiles&) = delete;
    ImageFiles& operator=(const ImageFiles&) = delete;
    ~ImageFiles();

    /// Opens the image file of a chip of `size` bytes, made erased when it is missing. A file that
    /// may only be read is served too, but what is written to its chip stays in memory.
    /// @param name  nothing is opened when it is empty
    /// @returns the contents, valid while this lives; empty without a name
    /// @throws support::InputError when the file cannot be used
    std::span<std::uint8_t> open(const std::filesystem::path& name, std::size_t size);

    std::vector<std::filesystem::path> names() const;

    /// The files that may only be read.
    std::vector<std::filesystem::path> read_only() const;

    /// @throws support::InputError when a chip's contents differ from its read-only file
    void expect_kept() const;

  private:
    struct Image {
        std::filesystem::path name;
        std::span<std::uint8_t> bytes;
        int file;
        bool read_only;

        bool is_kept() const;
    };
    std::vector<Image> images_;
};

} // namespace emulator
