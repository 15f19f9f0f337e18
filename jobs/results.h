// What unattended jobs say about each adapter, out of serial logs and results files.
#pragma once

#include <cstddef>
#include <filesystem>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace jobs {

/// The last that is known of an adapter: the words of its line by key, and the sentence behind
/// them.
struct AdapterResult {
    std::map<std::string, std::string, std::less<>> words;
    std::string text;
    std::string file; ///< where the line stood

    std::string_view word(std::string_view key) const;
    /// True when the flash holds the image.
    bool is_done() const;
};

/// How many adapters of a machine must be done.
struct ExpectedMachine {
    std::string name; ///< UUID or serial number
    std::size_t adapters;
};

/// What must be done.
struct Expected {
    std::string job; ///< only what this job did counts; empty: any job
    std::vector<ExpectedMachine> machines;
};

/// Reads a list of machines. @throws support::InputError with file, line and key
Expected load_expected(const std::filesystem::path& file);

/// The adapters of all files read so far. What a later line says replaces what an earlier one said
/// about the same machine and place.
class Results {
  public:
    /// Takes the lines out of a log's text. Escape sequences and line ends in the middle of a line,
    /// which terminals put there, do not matter.
    /// @returns false when it holds no line of a job
    bool add(std::string_view log, const std::string& file);

    const std::vector<AdapterResult>& adapters() const { return adapters_; }

    /// Sentences about machines with fewer adapters done than expected.
    std::vector<std::string> missing(const Expected& expected) const;

  private:
    bool add_line(std::string_view line, const std::string& file);
    void judge_machine(const AdapterResult& verdict);

    std::vector<AdapterResult> adapters_;
};

void print_table(const Results& results, std::ostream& out);

/// The same as JSON for scripts.
/// @param missing   sentences about what is not there
/// @param complete  true when all is done that was expected
std::string json(const Results& results, const std::vector<std::string>& missing, bool complete);

} // namespace jobs
