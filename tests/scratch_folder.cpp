#include "scratch_folder.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace lab {

Bytes read_file(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

Files read_files(const std::filesystem::path& folder) {
    Files files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        const std::string name = std::filesystem::relative(entry.path(), folder).string();
        if (entry.is_directory()) {
            files[name + "/"] = {};
        } else {
            files[name] = read_file(entry.path());
        }
    }
    return files;
}

ScratchFolder::ScratchFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "qfu-test-XXXXXX").string();
    path_ = mkdtemp(name.data());
}

ScratchFolder::~ScratchFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
}

void ScratchFolder::write(const std::string& name, std::span<const std::uint8_t> bytes) const {
    std::filesystem::create_directories((path_ / name).parent_path());
    std::ofstream(path_ / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

void ScratchFolder::write(const std::string& name, std::string_view text) const {
    write(name, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

} // namespace lab
