// A folder of the host that goes with its owner.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

using Bytes = std::vector<std::uint8_t>;

class ScratchFolder {
  public:
    ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder();

    const std::filesystem::path& path() const { return path_; }

    /// Writes a file, in folders that are made when they are missing.
    void write(const std::string& name, std::span<const std::uint8_t> bytes) const;
    void write(const std::string& name, std::string_view text) const;

    /// The bytes of a file; none when it is missing.
    Bytes read(const std::string& name) const;

  private:
    std::filesystem::path path_;
};

} // namespace lab
