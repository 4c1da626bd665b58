// kestrelvane: the library's engines from the command line.
#include "Commands.h"
#include "Completion.h"

#include <csignal>
#include <cstdio>

int main(int argc, char** argv) {
    // A write to a vanished peer fails with EPIPE instead of ending the process.
    std::signal(SIGPIPE, SIG_IGN);

    using namespace kestrelvane::cli;
    const std::vector<const Command*>& commands = allCommands();
    const std::string toolUsage = usage(commands);
    if (argc < 2) {
        std::fputs(toolUsage.c_str(), stderr);
        return exitUsage;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        std::fputs(toolUsage.c_str(), stdout);
        return exitOk;
    }
    for (const Command* command : commands) {
        if (command->name == name) {
            return command->run(std::vector<std::string>(argv + 2, argv + argc));
        }
    }
    std::fprintf(stderr, "kestrelvane: unknown command '%s'\n\n%s", name.c_str(),
                 toolUsage.c_str());
    return exitUsage;
}
