#pragma once

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrelvane::cli {

/// A mistake in how a command was called; reported with the command's usage
/// and exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One long option, as parsed and as its usage shows it ("--album NAME" or
/// "--album=NAME"). A value in brackets ("[NAME]") is optional: it is taken
/// only in the "--name=VALUE" form or from a following word that does not
/// start with "-".
struct Option {
    struct Number {
        long long minimum = 0;
        long long maximum = 0;
        bool whole = true; ///< false: a decimal number (--wait 0.5)
    };
    std::string name{};  ///< given as --name
    std::string value{}; ///< what its value is called, e.g. "NAME"; empty: a flag
    std::string help{};  ///< one paragraph; empty (and no forms): not listed
    std::optional<Number> number{};
    bool required = false;
    /// The value's forms ("usb:SERIAL"), each listed with its own help.
    std::vector<std::pair<std::string, std::string>> forms{};

    bool flag() const { return value.empty(); }
    bool optionalValue() const { return !value.empty() && value.front() == '['; }
};

/// A command's grammar and usage, declared once: what parses its words and
/// what writes its --help (and could write a manual page or completions).
struct Command {
    std::string name{};
    std::string about{};                ///< one line, for the tool's list of commands
    std::string operands{};             ///< e.g. "PATH..."; empty: none are taken
    std::vector<std::string> summary{}; ///< paragraphs, before the options
    std::vector<Option> options{};      ///< the command's own; --log and --help follow
    std::vector<std::pair<int, std::string>> exitStatuses{};
    int (*run)(const std::vector<std::string>& arguments) = nullptr; ///< returns the exit status
};

/// The words after a command's name, parsed by its declaration. --help prints
/// the usage; --log is applied ("--log stderr": library log lines to stderr;
/// without it they go to the journal when there is one); numbers are checked
/// against their ranges, then `check` runs the command's own checks. A
/// UsageError from any of them is printed with the usage. When the command
/// has nothing more to do, `finished` holds its exit status.
class CommandLine {
public:
    CommandLine(const Command& command, const std::vector<std::string>& arguments,
                const std::function<void(const CommandLine&)>& check = {});

    std::optional<int> finished;

    bool has(const std::string& name) const { return values_.count(name) != 0; }
    /// The value of an option given with one (the last one when repeated).
    std::optional<std::string> value(const std::string& name) const;
    /// A numeric option's value, or `fallback` when it was not given.
    double number(const std::string& name, double fallback) const;
    const std::vector<std::string>& operands() const noexcept { return operands_; }

private:
    void parse(const Command& command, const std::vector<std::string>& arguments);

    std::map<std::string, std::string> values_;
    std::map<std::string, double> numbers_;
    std::vector<std::string> operands_;
};

/// A command's --help text, and the tool's, listing `commands`.
std::string usage(const Command& command);
std::string usage(const std::vector<const Command*>& commands);

} // namespace kestrelvane::cli
