// The tool for unattended jobs.
#include "compile.h"
#include "job.h"
#include "results.h"
#include "spilist/source.h"
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

/// The parallel NOR chips are in no list.
constexpr std::uint32_t kLargestNorChip = 0x800000;

struct Options {
    std::string folder;
    std::string chips;
    std::string output;
    std::vector<std::string> logs;
    std::string expected;
    bool json = false;
};

Job load(const Options& options) {
    std::uint32_t largest = kLargestNorChip;
    for (const spilist::Chip& chip : spilist::read_source(options.chips).chips) {
        largest = std::max(largest, chip.entry.whole_size);
    }
    return load_job(options.folder, largest);
}

int run_check(const Options& options) {
    const Job job = load(options);
    for (const AdapterJob& adapter : job.adapters) {
        std::cout << options.folder << "/job.toml:" << adapter.line << ": " << adapter.image << ", "
                  << adapter.image_size << " bytes, sha256 " << adapter.image_sum << '\n';
    }
    return 0;
}

int run_compile(const Options& options) {
    const Job job = load(options);
    const std::filesystem::path output = options.output;
    for (const AdapterJob& adapter : job.adapters) {
        std::filesystem::copy_file(std::filesystem::path(options.folder) / adapter.image,
                                   output / adapter.image,
                                   std::filesystem::copy_options::overwrite_existing);
    }
    for (const auto& [name, text] : compile(job)) {
        support::OutputFile file(output / name, {});
        file.write(text);
        file.finish();
    }
    std::cout << room_for(job) << '\n';
    return 0;
}

int run_results(const Options& options) {
    Results results;
    std::vector<std::string> missing;
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
            missing.push_back(log + ": holds no line of a job");
        }
    }
    if (!options.expected.empty()) {
        std::ranges::copy(results.missing(load_expected(options.expected)),
                          std::back_inserter(missing));
    }
    const bool complete = missing.empty() && !results.adapters().empty() &&
                          std::ranges::all_of(results.adapters(), &AdapterResult::is_done);
    if (options.json) {
        std::cout << json(results, missing, complete);
    } else {
        print_table(results, std::cout);
        for (const std::string& sentence : missing) {
            std::cout << sentence << '\n';
        }
    }
    return complete ? 0 : kNotAllDone;
}

int run(int argc, char** argv) {
    CLI::App app("Checks unattended jobs, turns them into scripts, and reads their results.\n"
                 "The exit status is 0; 1 when not every adapter is done; 2 when a command or file "
                 "cannot be used.",
                 "qfu-job");
    app.require_subcommand(1);
    app.set_version_flag("--version", support::version_line("qfu-job"));
    app.footer("Examples:\n"
               "  qfu-job check jobs/line-3 --chips spilist/chips.toml\n"
               "  qfu-job results *.log --expect machines.toml\n"
               "\"qfu-job COMMAND --help\" says more about a command.");
    Options options;
    CLI::App* check = app.add_subcommand("check", "say what is wrong with a job");
    CLI::App* compile =
        app.add_subcommand("compile", "make a job's scripts, and print how many bytes they write");
    for (CLI::App* command : {check, compile}) {
        command->add_option("folder", options.folder, "folder with job.toml and the images")
            ->required();
        command->add_option("--chips", options.chips, "source of the chip list")->required();
    }
    compile->add_option("-o,--output", options.output, "folder that is there")->required();
    CLI::App* results =
        app.add_subcommand("results", "show what became of each machine and adapter");
    results->add_option("log", options.logs, "serial log, results.txt, or the folder of a stick")
        ->required();
    results->add_option("--expect", options.expected, "machines that must be done (TOML)");
    results->add_flag("--json", options.json, "print JSON");
    if (const auto status = support::read_arguments(app, {argv + std::min(argc, 1), argv + argc})) {
        return *status;
    }
    if (check->parsed()) {
        return run_check(options);
    }
    return compile->parsed() ? run_compile(options) : run_results(options);
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
