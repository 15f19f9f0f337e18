#include "image.h"

#include "file_name.h"
#include "qfu/bounds.h"

namespace flash {

Outcome Image::open(const platform::FileName& name, std::span<std::uint8_t> buffer) {
    name_ = name;
    const EFI_STATUS status = file_.open(name, platform::ACCESS_READ);
    if (status != EFI_SUCCESS) {
        return refused("@@",
                       {name, status == EFI_NOT_FOUND ? ": not found" : ": cannot be opened"});
    }
    if (platform::is_directory(file_.get())) {
        return refused("@: is a folder", {name});
    }
    std::uint64_t size = 0;
    const bool sized = platform::size(file_.get(), size) == EFI_SUCCESS;
    if (sized && (size == 0 || size > UINT32_MAX)) {
        return refused("@: has @ bytes; allowed: 1 to 4294967295", {name, size});
    }
    size_ = static_cast<std::uint32_t>(size);
    return sized && take_sum(buffer) ? Outcome{} : refused("@: cannot be read", {name});
}

void Image::be_blank(std::uint32_t size, std::span<std::uint8_t> buffer) {
    append(name_, "FF");
    size_ = size;
    take_sum(buffer);
}

bool Image::read(std::uint32_t offset, std::span<std::uint8_t> out) const {
    if (!file_) {
        for (std::uint8_t& byte : out) {
            byte = 0xFF;
        }
        return true;
    }
    std::size_t count = out.size();
    return platform::set_position(file_.get(), offset) == EFI_SUCCESS &&
           platform::read(file_.get(), out.data(), count) == EFI_SUCCESS && count == out.size();
}

bool Image::take_sum(std::span<std::uint8_t> buffer) {
    QFU_SHA256 hash;
    for (std::uint64_t at = 0; at < size_; at += buffer.size()) {
        const auto piece = buffer.first(qfu_smaller<std::uint64_t>(buffer.size(), size_ - at));
        if (!read(static_cast<std::uint32_t>(at), piece)) {
            return false;
        }
        hash.add(piece);
    }
    sum_ = hash.finish();
    return true;
}

} // namespace flash
