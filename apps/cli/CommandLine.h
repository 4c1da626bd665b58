#pragma once

#include <map>
#include <optional>
#include <set>
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

/// The options and operands of one subcommand. Options are long ("--album
/// NAME" or "--album=NAME"); flags take no value; an option whose value is
/// optional takes it only in the "--name=VALUE" form or from a following word
/// that does not start with "-". "--" ends the options.
class CommandLine {
public:
    struct Grammar {
        std::set<std::string> flags{};         ///< e.g. "json", "once"
        std::set<std::string> valued{};        ///< e.g. "album", "to"
        std::set<std::string> optionalValue{}; ///< e.g. "advertise"
    };

    CommandLine(const std::vector<std::string>& arguments, const Grammar& grammar);

    bool has(const std::string& name) const { return values_.count(name) != 0; }
    /// The value of an option given with one (the last one when repeated).
    std::optional<std::string> value(const std::string& name) const;
    const std::vector<std::string>& operands() const noexcept { return operands_; }

private:
    std::map<std::string, std::string> values_;
    std::vector<std::string> operands_;
};

/// Applies "--log stderr" (library log lines to stderr); without it they go
/// to the journal when there is one. Any other value is a usage error.
void applyLogOption(const CommandLine& line);

/// Reads a TCP port: 1 to 65535 (0 too when `allowZero`, meaning any free port).
int parsePort(const std::string& text, bool allowZero = false);

} // namespace kestrelvane::cli
