#include "arguments.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>

namespace support {
namespace {

/// Help with first lines of the tool's own.
class Formatter : public CLI::Formatter {
  public:
    explicit Formatter(std::string usage) : usage_(std::move(usage)) {}
    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
        return usage_ + "\n";
    }

  private:
    std::string usage_;
};

} // namespace

const Option& Option::required() const {
    option_->required();
    return *this;
}

const Option& Option::needs(const Option& other) const {
    option_->needs(other.option_);
    return *this;
}

const Option& Option::one_of(const std::vector<std::string>& words) const {
    option_->check(CLI::IsMember(words));
    return *this;
}

const Option& Option::existing_folder() const {
    option_->check(CLI::ExistingDirectory);
    return *this;
}

const Option& Option::check(std::string (*complaint)(const std::string& value)) const {
    option_->check(complaint);
    return *this;
}

const Option& Option::one_value_each() const {
    option_->allow_extra_args(false);
    return *this;
}

const Option& Option::show_default() const {
    option_->capture_default_str();
    return *this;
}

template <typename Value>
Option Command::option(const std::string& names, Value& value, const std::string& help) const {
    return Option(app_->add_option(names, value, help));
}

using Text = const std::string&;
template Option Command::option(Text, std::string&, Text) const;
template Option Command::option(Text, std::optional<std::string>&, Text) const;
template Option Command::option(Text, std::vector<std::string>&, Text) const;
template Option Command::option(Text, std::optional<std::uint8_t>&, Text) const;
template Option Command::option(Text, std::vector<std::uint8_t>&, Text) const;
template Option Command::option(Text, std::uint16_t&, Text) const;
template Option Command::option(Text, double&, Text) const;

void Command::flag(const std::string& name, bool& value, const std::string& help) const {
    app_->add_flag(name, value, help);
}

void Command::usage(const std::string& lines) const {
    app_->formatter(std::make_shared<Formatter>(lines));
}

void Command::footer(const std::string& lines) const {
    app_->footer(lines);
}

bool Command::was_given() const {
    return app_->parsed();
}

Arguments::Arguments(const std::string& does, const std::string& tool)
    : Command(std::make_shared<CLI::App>(does, tool)) {}

Command Arguments::command(const std::string& name, const std::string& does) const {
    app().add_subcommand(name, does);
    return Command(app().get_subcommand_ptr(name));
}

void Arguments::require_command() const {
    app().require_subcommand(1);
}

void Arguments::version(const std::string& line) const {
    app().set_version_flag("--version", line);
}

std::string Arguments::tool() const {
    return app().get_name();
}

std::vector<std::string> Arguments::commands() const {
    std::vector<std::string> names;
    for (const CLI::App* command : app().get_subcommands({})) {
        names.push_back(command->get_name());
    }
    return names;
}

bool Arguments::read(const std::vector<std::string>& words) const {
    try {
        // The parser takes the words from the end.
        app().parse(std::vector<std::string>(words.rbegin(), words.rend()));
        return true;
    } catch (const CLI::Success& help) {
        app().exit(help);
        return false;
    } catch (const CLI::ParseError& error) {
        throw UsageError(error.what(), app().remaining());
    }
}

} // namespace support
