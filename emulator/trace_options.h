// Which stretch of a run is traced, and where to.
#pragma once

#include <string>

namespace CLI {
class App;
} // namespace CLI

namespace emulator {

/// What is traced, from the command line.
struct TraceOptions {
    std::string file;         ///< empty: nothing
    double from_seconds = 0;  ///< since the start
    double to_seconds = 1e12; ///< not included

    /// Adds --trace, --trace-from and --trace-to.
    void add_to(CLI::App& app);
};

} // namespace emulator
