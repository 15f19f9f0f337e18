#include "folder.h"

#include "flash/job_file.h"
#include "support/input_error.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fnmatch.h>
#include <fstream>
#include <iterator>

namespace jobs {
namespace {

/// The largest chip of the list; the NOR chips have half of it.
constexpr std::uint64_t kLargestChip = 16ULL << 20;

/// What a backup has around the image at both ends, and its text file.
constexpr std::uint64_t kAround = 2 * 0x10000 + 0x1000;

std::string narrow(const flash::Text& text) {
    const auto characters = text.characters();
    return {characters.begin(), characters.end()};
}

std::string read_file(const std::filesystem::path& name) {
    std::ifstream file(name, std::ios::binary);
    if (!file || !std::filesystem::is_regular_file(name)) {
        throw support::InputError(
            name.string() + ": cannot be read: " + (file ? "it is no file" : std::strerror(errno)));
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A file name of a job as a pattern: "*" for what each machine has for itself.
std::string pattern(const platform::FileName& name) {
    std::string text;
    for (const CHAR16* c = name.text; *c != 0; ++c) {
        text.push_back(static_cast<char>(*c));
        if (*c == '}') {
            text.erase(text.rfind('{'));
            text.push_back('*');
        }
    }
    return text;
}

void add_images(const std::filesystem::path& folder, const flash::JobLine& line,
                const platform::FileName& name, Folder& job) {
    const std::size_t before = job.images.size();
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const std::string file = entry.path().filename().string();
        // FAT does not tell capitals from small letters.
        if (fnmatch(pattern(name).c_str(), file.c_str(), FNM_CASEFOLD) == 0) {
            const std::string bytes = read_file(entry.path());
            QFU_SHA256 hash;
            hash.add({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
            job.images.push_back(
                {line.number, file, bytes.size(), narrow(flash::Text("@", {hash.finish()}))});
        }
    }
    const auto found = job.images.begin() + static_cast<std::ptrdiff_t>(before);
    std::ranges::sort(found, job.images.end(), {}, &Image::name);
    const bool empty =
        std::any_of(found, job.images.end(), [](const Image& image) { return image.size == 0; });
    if (found == job.images.end() || empty) {
        throw support::InputError("job.txt:" + std::to_string(line.number) + ": " +
                                  narrow(flash::Text("@", {name})) +
                                  (empty ? ": is empty" : ": not found"));
    }
}

} // namespace

Folder check_folder(const std::filesystem::path& folder) {
    flash::Text reason;
    flash::keep_reason_in(reason);
    const std::string text = read_file(folder / "job.txt");
    flash::JobFile file{};
    flash::Request request{};
    if (flash::parse_job("job.txt", text, file, request)) {
        throw support::InputError(narrow(reason));
    }
    Folder job;
    for (const flash::JobLine& line : std::span(file.lines).first(file.count)) {
        flash::parse_line(line, request);
        std::uint64_t saved = request.has(flash::SIZE) ? request.size : kLargestChip;
        if (request.command == flash::Command::WRITE || request.command == flash::Command::VERIFY) {
            const std::size_t before = job.images.size();
            add_images(folder, line, request.file, job);
            saved = std::ranges::max(std::span(job.images).subspan(before), {}, &Image::size).size;
        }
        if (request.command != flash::Command::VERIFY) {
            job.room += request.count * (saved + kAround);
        }
    }
    return job;
}

} // namespace jobs
