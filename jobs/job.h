// A job: what an unattended medium does, on which adapters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace jobs {

/// What happens at the end of a job, in the words of job files.
inline constexpr std::string_view kEnds[] = {"prompt", "reset", "power off"};

/// What happens to the next adapter after one that failed.
inline constexpr std::string_view kOnFailure[] = {"stop", "continue"};

/// Where an adapter sits. qfu looks at function 0 alone.
struct Place {
    std::uint32_t bus;
    std::uint32_t device;

    bool operator==(const Place&) const = default;
};

/// An adapter's model.
struct Model {
    std::uint16_t vendor;
    std::uint16_t device;

    bool operator==(const Model&) const = default;
};

/// What one kind of adapter gets.
struct AdapterJob {
    std::optional<Model> model; ///< absent: every model that qfu knows
    std::size_t count = 1;      ///< how many must be there
    std::vector<Place> places;  ///< where they must be; empty: anywhere
    std::string image;          ///< name in the job folder
    std::uint64_t image_size = 0;
    std::string image_sum; ///< SHA-256 in hexadecimal
    std::uint32_t address = 0;
    std::optional<std::int64_t> chip_select;
    std::optional<std::uint32_t> chip_size;
    bool backup = false; ///< of the whole chip, first
    bool again = false;  ///< also when the flash holds the image already
    std::size_t line = 0;
};

struct Job {
    std::string name; ///< on each result line
    std::string on_failure;
    std::string at_end;
    std::vector<AdapterJob> adapters;
};

/// Reads job.toml in that folder, and the images that it names.
/// @param largest_chip  bytes; what an image must fit into when the job does not say how large the
/// chip is
/// @throws support::InputError with file, line and key
Job load_job(const std::filesystem::path& folder, std::uint32_t largest_chip);

/// Bytes that the scripts of the job write on the medium at most, not counting what is tiny.
std::uint64_t room_for(const Job& job);

} // namespace jobs
