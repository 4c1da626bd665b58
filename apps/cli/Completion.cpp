#include "Completion.h"

#include "Commands.h"

#include <sstream>

namespace kestrelvane::cli {

namespace {

/// Every option a command takes on its command line.
std::vector<const Option*> optionsOf(const Command& command) {
    static const Option log{.name = "log", .value = "stderr"};
    static const Option help{.name = "help"};
    std::vector<const Option*> options;
    for (const Option& option : command.options) {
        options.push_back(&option);
    }
    options.push_back(&log);
    options.push_back(&help);
    return options;
}

std::string words(const std::vector<std::string>& list) {
    std::string joined;
    for (const std::string& word : list) {
        joined += (joined.empty() ? "" : " ") + word;
    }
    return joined;
}

} // namespace

const std::vector<const Command*>& allCommands() {
    static const std::vector<const Command*> commands = {
        &sendCommand, &receiveCommand, &devicesCommand, &demoCommand, &pairCommand, &idCommand};
    return commands;
}

std::string bashCompletion(const std::vector<const Command*>& commands) {
    std::ostringstream out;
    std::vector<std::string> names;
    for (const Command* command : commands) {
        names.push_back(command->name);
    }
    names.push_back("--help");
    out << "# bash completion for kestrelvane; made from the tool's own declarations.\n"
           "_kestrelvane() {\n"
           "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
           "    local options='' folders='' values='' paths=''\n"
           "    if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
           "        COMPREPLY=($(compgen -W '"
        << words(names)
        << "' -- \"$cur\"))\n"
           "        return\n"
           "    fi\n"
           "    case ${COMP_WORDS[1]} in\n";
    for (const Command* command : commands) {
        std::vector<std::string> options, folders, values;
        for (const Option* option : optionsOf(*command)) {
            options.push_back("--" + option->name);
            if (option->value == "DIR") {
                folders.push_back("--" + option->name);
            } else if (!option->value.empty()) {
                values.push_back("--" + option->name);
            }
        }
        out << "        " << command->name << ") options='" << words(options) << "' folders='"
            << words(folders) << "' values='" << words(values)
            << "' paths=" << (command->operands.find("PATH") != std::string::npos ? "yes" : "")
            << " ;;\n";
    }
    out << "        *) return ;;\n"
           "    esac\n"
           "    if [[ \" $folders \" == *\" $prev \"* ]]; then\n"
           "        COMPREPLY=($(compgen -d -- \"$cur\"))\n"
           "    elif [[ \" $values \" == *\" $prev \"* ]]; then\n"
           "        COMPREPLY=()\n"
           "    elif [[ $cur == -* ]]; then\n"
           "        COMPREPLY=($(compgen -W \"$options\" -- \"$cur\"))\n"
           "    elif [ -n \"$paths\" ]; then\n"
           "        COMPREPLY=($(compgen -f -- \"$cur\"))\n"
           "    fi\n"
           "}\n"
           "complete -o filenames -F _kestrelvane kestrelvane\n";
    return out.str();
}

std::string optionList(const std::vector<const Command*>& commands) {
    std::string list;
    for (const Command* command : commands) {
        for (const Option* option : optionsOf(*command)) {
            if (option->name != "help") { // every command's, said once for all
                list += command->name + " --" + option->name + "\n";
            }
        }
    }
    return list;
}

} // namespace kestrelvane::cli
