// Files that tools write, without harm to what is there.
#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace support {

/// True when both names mean one file, whether it is there yet or not.
bool is_same_file(const std::filesystem::path& a, const std::filesystem::path& b);

/// When an output file gets its name.
enum class Appears {
    kWhole,    ///< when it is finished: until then, and after a failure, the old file stays
    kAsWritten ///< at once, so that a log of a run that was killed is there
};

/// A file that a tool writes. Devices, pipes and standard output are written as they stand.
class OutputFile {
  public:
    /// @param inputs  what the tool reads or keeps: no output may be one of these files, whether
    ///                they are there yet or not, nor end in ".toml", the ending of sources
    /// @throws InputError when `name` is refused or cannot be opened
    OutputFile(const std::filesystem::path& name, std::span<const std::filesystem::path> inputs,
               Appears appears = Appears::kWhole);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /// Without `finish` before it, a file that appears whole does not appear.
    ~OutputFile();

    /// Adds bytes. A failure shows in `finish`.
    void write(std::string_view bytes);

    /// Ends the file and gives it its name. @throws InputError when not all of it was written
    void finish();

  private:
    void open_beside();
    void flush();
    [[noreturn]] void fail(int error) const;

    std::filesystem::path name_;      ///< as the user wrote it
    std::filesystem::path target_;    ///< behind links; empty: no rename at the end
    std::filesystem::path temporary_; ///< beside the target
    std::string pending_;
    int file_ = -1;
    int error_ = 0;
};

/// Flushes standard output. @throws InputError when not all that was printed was taken
void finish_standard_output();

} // namespace support
