// The folder of a job, as a medium is made of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace jobs {

/// An image that a line of the job needs.
struct Image {
    std::size_t line;
    std::string name; ///< in the folder
    std::uint64_t size;
    std::string sum; ///< SHA-256 in hexadecimal
};

/// What the job of a folder needs.
struct Folder {
    std::vector<Image> images;
    std::uint64_t room = 0; ///< bytes that backups take at most, of each repetition
};

/// Reads "job.txt" in a folder as "flash job" does, and the images that its lines name.
/// @throws support::InputError with file and line
Folder check_folder(const std::filesystem::path& folder);

} // namespace jobs
