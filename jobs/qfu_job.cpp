// The tool for unattended jobs.
#include "folder.h"
#include "results.h"
#include "support/arguments.h"
#include "support/input_error.h"
#include "support/output_file.h"
#include "support/version.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

namespace {

using namespace jobs;

constexpr int kNotAllDone = 1;

struct Options {
    std::string folder;
    std::vector<std::string> logs;
    std::string expected;
    bool json = false;
    bool csv = false;
};

int run_check(const Options& options) {
    const Folder job = check_folder(options.folder);
    for (const Image& image : job.images) {
        std::cout << "job.txt:" << image.line << ": " << image.name << ", " << image.size
                  << " bytes, sha256 " << image.sum << '\n';
    }
    std::cout << "backups take " << job.room << " bytes at most\n";
    return 0;
}

int run_results(const Options& options) {
    Results results;
    std::vector<std::string> problems;
    for (const std::string& log : options.logs) {
        const std::filesystem::path folder = log;
        // A stick has its results beside the job.
        const std::filesystem::path name =
            std::filesystem::is_directory(folder) ? folder / "job" / "results.txt" : folder;
        std::ifstream file(name, std::ios::binary);
        if (!file) {
            throw support::InputError(name.string() + ": cannot be read: " + std::strerror(errno));
        }
        if (!results.add(std::string(std::istreambuf_iterator<char>(file), {}), log)) {
            problems.push_back(log + ": holds no line of a job");
        }
    }
    std::ranges::copy(results.problems(), std::back_inserter(problems));
    if (!options.expected.empty()) {
        std::ranges::copy(results.missing(load_expected(options.expected)),
                          std::back_inserter(problems));
    }
    const std::vector<Line> lines = results.lines();
    const bool complete =
        problems.empty() && !lines.empty() && std::ranges::all_of(lines, &Line::is_done);
    if (options.json) {
        std::cout << json(lines, problems, complete);
        return complete ? 0 : kNotAllDone;
    }
    (options.csv ? print_csv : print_table)(lines, std::cout);
    for (const std::string& sentence : problems) {
        (options.csv ? std::cerr : std::cout) << sentence << '\n';
    }
    return complete ? 0 : kNotAllDone;
}

int run(int argc, char** argv) {
    CLI::App app("Checks unattended jobs and reads their results.\n"
                 "The exit status is 0; 1 when not every adapter is done; 2 when a command or file "
                 "cannot be used.",
                 "qfu-job");
    app.require_subcommand(1);
    app.set_version_flag("--version", support::version_line("qfu-job"));
    app.footer("Examples:\n"
               "  qfu-job check jobs/line-3\n"
               "  qfu-job results *.log --expect machines.toml\n"
               "\"qfu-job COMMAND --help\" says more about a command.");
    Options options;
    CLI::App* check = app.add_subcommand("check", "say what is wrong with a job");
    check->add_option("folder", options.folder, "folder with job.txt and the images")->required();
    CLI::App* results =
        app.add_subcommand("results", "show what became of each machine and adapter");
    results->add_option("log", options.logs, "serial log, results.txt, or the folder of a stick")
        ->required();
    results->add_option("--expect", options.expected, "machines that must be done (TOML)");
    auto* json = results->add_flag("--json", options.json, "print JSON");
    results->add_flag("--csv", options.csv, "print comma-separated values")->excludes(json);
    if (const auto status = support::read_arguments(app, {argv + std::min(argc, 1), argv + argc})) {
        return *status;
    }
    return check->parsed() ? run_check(options) : run_results(options);
}

} // namespace

int main(int argc, char** argv) try {
    const int status = run(argc, argv);
    support::finish_standard_output();
    return status;
} catch (const std::exception& error) {
    std::cerr << "qfu-job: " << error.what() << '\n';
    return support::kCannotRun;
}
