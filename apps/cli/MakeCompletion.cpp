// Build step: writes the bash completion of `kestrelvane` (--bash) or the list
// of every command's options (--options) from the commands' declarations.
#include "Completion.h"

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    using namespace kestrelvane::cli;
    const std::string what = argc == 2 ? argv[1] : "";
    if (what == "--bash") {
        std::fputs(bashCompletion(allCommands()).c_str(), stdout);
    } else if (what == "--options") {
        std::fputs(optionList(allCommands()).c_str(), stdout);
    } else {
        std::fputs("usage: kestrelvane-make-completion --bash | --options\n", stderr);
        return 2;
    }
    return 0;
}
