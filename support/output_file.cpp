#include "output_file.h"

#include "input_error.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

namespace support {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostPending = 65536;

bool is_source(const fs::path& name) {
    std::string ending = name.extension().string();
    std::ranges::transform(ending, ending.begin(), [](unsigned char c) { return std::tolower(c); });
    return ending == ".toml";
}

/// The open standard stream that the file is, or -1. It is written where it stands: opened again,
/// it would lose what was written so far.
int standard_stream(const struct stat& file) {
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        struct stat standard {};
        if (fstat(stream, &standard) == 0 && standard.st_dev == file.st_dev &&
            standard.st_ino == file.st_ino) {
            return stream;
        }
    }
    return -1;
}

} // namespace

bool is_same_file(const fs::path& a, const fs::path& b) {
    std::error_code error;
    const bool a_exists = fs::exists(a, error);
    const bool b_exists = fs::exists(b, error);
    if (a_exists && b_exists) {
        return fs::equivalent(a, b, error);
    }
    return a_exists == b_exists && fs::weakly_canonical(fs::absolute(a), error) ==
                                       fs::weakly_canonical(fs::absolute(b), error);
}

OutputFile::OutputFile(const fs::path& name, std::span<const fs::path> inputs, Appears appears)
    : name_(name) {
    for (const fs::path& input : inputs) {
        if (is_same_file(name, input)) {
            throw InputError(name.string() + ": is also read; give the output another name");
        }
    }
    if (is_source(name)) {
        throw InputError(name.string() +
                         ": an output must not end in .toml, the ending of sources");
    }
    struct stat there {};
    const bool exists = stat(name.c_str(), &there) == 0;
    const int stream = exists ? standard_stream(there) : -1;
    if (stream >= 0) {
        file_ = dup(stream);
    } else if (appears == Appears::kWhole && (!exists || S_ISREG(there.st_mode))) {
        open_beside();
    } else {
        file_ = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    }
    if (file_ < 0) {
        fail(errno);
    }
}

OutputFile::~OutputFile() {
    if (file_ >= 0) {
        flush();
        close(file_);
        if (!temporary_.empty()) {
            unlink(temporary_.c_str());
        }
    }
}

void OutputFile::open_beside() {
    target_ = fs::weakly_canonical(fs::absolute(name_));
    struct stat old {};
    const bool replaces = stat(target_.c_str(), &old) == 0;
    if (replaces && access(target_.c_str(), W_OK) != 0) {
        return; // a rename would get round the write protection
    }
    temporary_ = target_.parent_path() /
                 ("." + target_.filename().string() + "." + std::to_string(getpid()));
    file_ = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (file_ >= 0 && replaces) {
        fchmod(file_, old.st_mode & 07777);
    }
}

void OutputFile::write(std::string_view bytes) {
    pending_ += bytes;
    if (pending_.size() >= kMostPending) {
        flush();
    }
}

void OutputFile::flush() {
    std::string_view left = pending_;
    while (!left.empty() && error_ == 0) {
        const ssize_t written = ::write(file_, left.data(), left.size());
        if (written >= 0) {
            left.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            error_ = errno;
        }
    }
    pending_.clear();
}

void OutputFile::finish() {
    flush();
    if (close(file_) != 0 && error_ == 0) {
        error_ = errno;
    }
    file_ = -1;
    if (!temporary_.empty() && error_ == 0 && rename(temporary_.c_str(), target_.c_str()) != 0) {
        error_ = errno;
    }
    if (error_ != 0) {
        if (!temporary_.empty()) {
            unlink(temporary_.c_str());
        }
        fail(error_);
    }
}

void OutputFile::fail(int error) const {
    throw InputError(name_.string() + ": cannot be written: " + std::strerror(error));
}

void finish_standard_output() {
    if (!std::cout.flush() || std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        throw InputError("standard output: cannot be written in full");
    }
}

} // namespace support
