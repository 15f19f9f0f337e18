#include "arguments.h"

#include "output_file.h"

#include <algorithm>
#include <iostream>

namespace support {

std::optional<int> read_arguments(CLI::App& app, std::vector<std::string> words, int cannot_run) {
    std::ranges::reverse(words); // the parser takes them from the end
    try {
        app.parse(std::move(words));
        return std::nullopt;
    } catch (const CLI::Success& help) {
        app.exit(help);
        finish_standard_output();
        return 0;
    } catch (const CLI::ParseError& error) {
        std::cerr << app.get_name() << ": " << error.what() << "\nTry: " << app.get_name()
                  << " --help\n";
        return cannot_run;
    }
}

} // namespace support
