// The command line of a tool. The library that reads it is in headers alone and takes longer to
// compile than a tool; here it is compiled once for all of them.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace support {

/// A command line that cannot be used.
class UsageError : public std::runtime_error {
  public:
    UsageError(const std::string& what, std::vector<std::string> extra)
        : std::runtime_error(what), extra_(std::move(extra)) {}

    /// The words for which the tool has no use.
    const std::vector<std::string>& extra() const { return extra_; }

  private:
    std::vector<std::string> extra_;
};

/// An option, or a word that needs none in front of it.
class Option {
  public:
    explicit Option(CLI::Option* option) : option_(option) {}

    const Option& required() const;
    const Option& needs(const Option& other) const;
    const Option& one_of(const std::vector<std::string>& words) const;
    const Option& existing_folder() const;

    /// @param complaint  says what is wrong with a value; nothing when it is right
    const Option& check(std::string (*complaint)(const std::string& value)) const;

    /// Takes one value each time that it is given; a list otherwise takes all that follow.
    const Option& one_value_each() const;

    /// Lets the help name the value that the variable has now.
    const Option& show_default() const;

  private:
    CLI::Option* option_;
};

/// What a tool, or one command of a tool, takes. Values go to the caller's variables.
class Command {
  public:
    explicit Command(std::shared_ptr<CLI::App> app) : app_(std::move(app)) {}

    /// The values that there are: texts, lists of texts, bytes and lists of bytes, port numbers,
    /// seconds.
    template <typename Value>
    Option option(const std::string& names, Value& value, const std::string& help) const;
    void flag(const std::string& name, bool& value, const std::string& help) const;

    /// Sets the lines that the help shows first.
    void usage(const std::string& lines) const;
    /// Sets the lines that the help shows last.
    void footer(const std::string& lines) const;

    /// True when the command line that was read has this command.
    bool was_given() const;

  protected:
    CLI::App& app() const { return *app_; }

  private:
    std::shared_ptr<CLI::App> app_;
};

/// All that a tool takes.
class Arguments : public Command {
  public:
    Arguments(const std::string& does, const std::string& tool);

    Command command(const std::string& name, const std::string& does) const;
    void require_command() const;
    void version(const std::string& line) const;

    std::string tool() const;
    std::vector<std::string> commands() const;

    /// Reads the words behind the tool's name.
    /// @returns false when they ask for help or for the version, which is then printed
    /// @throws UsageError
    bool read(const std::vector<std::string>& words) const;
};

} // namespace support
