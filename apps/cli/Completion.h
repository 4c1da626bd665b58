#pragma once

#include "CommandLine.h"

#include <string>
#include <vector>

namespace kestrelvane::cli {

/// Every command of the tool, in the order its usage lists them.
const std::vector<const Command*>& allCommands();

/// A bash completion script for `kestrelvane`, made from the commands'
/// declarations: command names, each command's options (--log and --help
/// included), folders after an option whose value is a DIR, files where a
/// command takes PATHs.
std::string bashCompletion(const std::vector<const Command*>& commands);

/// "COMMAND --OPTION" per line for every option of every command, --log
/// included: what the man page, --help and docs must each mention.
std::string optionList(const std::vector<const Command*>& commands);

} // namespace kestrelvane::cli
