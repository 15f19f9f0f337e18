// A folder of the host that goes with its owner.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

using Bytes = std::vector<std::uint8_t>;

/// Files by path, folders separated by "/". A folder ends with a slash and has no bytes.
using Files = std::map<std::string, Bytes>;

/// The bytes of a file; none when it is missing.
Bytes read_file(const std::filesystem::path& file);

/// All that a folder holds.
Files read_files(const std::filesystem::path& folder);

class ScratchFolder {
  public:
    ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder();

    const std::filesystem::path& path() const { return path_; }

    /// Writes a file, in folders that are made when they are missing. A name that ends with a slash
    /// is a folder.
    void write(const std::string& name, std::span<const std::uint8_t> bytes) const;
    void write(const std::string& name, std::string_view text) const;

    /// The bytes of a file; none when it is missing.
    Bytes read(const std::string& name) const { return read_file(path_ / name); }

  private:
    std::filesystem::path path_;
};

} // namespace lab
