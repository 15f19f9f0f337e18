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

/// One line of a job: its words by key, and the sentence at its end.
struct Line {
    std::map<std::string, std::string, std::less<>> words;
    std::string text;
    std::string file; ///< where it was read

    std::string_view word(std::string_view key) const;
    /// True when the step is as the job wants it.
    bool is_done() const { return word("status") == "done" || word("status") == "held"; }
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

/// The runs of all logs read so far. Of each machine and job the last run counts; for an adapter
/// that has not a result for every step in it, the run before.
class Results {
  public:
    /// Takes the lines out of a log's text. Escape sequences and line ends in the middle of a line,
    /// which terminals put there, do not matter.
    /// @returns false when it holds no line of a job
    bool add(std::string_view log, const std::string& file);

    /// The lines that count, one for each adapter and step. What has no result is "unfinished".
    std::vector<Line> lines() const;

    /// Sentences about what is wrong: runs that did not end, and two images under one name.
    std::vector<std::string> problems() const;

    /// Sentences about machines with fewer adapters done than expected.
    std::vector<std::string> missing(const Expected& expected) const;

  private:
    struct Adapter {
        Line found;
        std::map<unsigned long, Line> results; ///< by step

        bool is_complete() const;
        bool is_done() const;
    };
    using Adapters = std::map<std::string, Adapter>; ///< by place

    /// What a machine said about a job.
    struct Machine {
        Line last;       ///< about the machine as a whole, in its last run
        Adapters now;    ///< in the last run
        Adapters before; ///< complete ones of the runs before it

        bool is_finished() const;
        Adapters counting() const;
    };

    bool add_line(std::string_view line, const std::string& file);

    std::map<std::string, Machine> machines_;
    std::map<std::string, std::map<std::string, std::string>> sums_; ///< by job, then by image
    std::vector<std::string> two_sums_;
};

void print_table(const std::vector<Line>& lines, std::ostream& out);

/// The same for spreadsheets. A cell that would be taken for a formula begins with "'".
void print_csv(const std::vector<Line>& lines, std::ostream& out);

/// The same as JSON for scripts.
/// @param problems  sentences about what is wrong
/// @param complete  true when all is done that was expected
std::string json(const std::vector<Line>& lines, const std::vector<std::string>& problems,
                 bool complete);

} // namespace jobs
