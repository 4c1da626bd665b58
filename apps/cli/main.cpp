// kestrelvane: the library's engines from the command line.
#include "Commands.h"

#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* usage = R"(usage: kestrelvane COMMAND [OPTIONS]

Copies photos and videos to an iPhone, byte for byte: every file is verified
by SHA-256 on the receiving side and acknowledged.

Commands:
  send      send photos and videos to an iPhone (USB) or a receiver (TCP)
  receive   receive files into a folder, as a phone would
  devices   list the iPhones usbmuxd sees and the receivers on the network
  demo      send sample files to a simulated iPhone over the real USB path

Every command takes --help, and --log stderr to write the library's log
lines to stderr instead of the journal.
)";

} // namespace

int main(int argc, char** argv) {
    // A write to a vanished peer fails with EPIPE instead of ending the process.
    std::signal(SIGPIPE, SIG_IGN);

    using namespace kestrelvane::cli;
    if (argc < 2) {
        std::fputs(usage, stderr);
        return exitUsage;
    }
    const std::string command = argv[1];
    const std::vector<std::string> arguments(argv + 2, argv + argc);
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(usage, stdout);
        return exitOk;
    }
    if (command == "send") {
        return runSend(arguments);
    }
    if (command == "receive") {
        return runReceive(arguments);
    }
    if (command == "devices") {
        return runDevices(arguments);
    }
    if (command == "demo") {
        return runDemo(arguments);
    }
    std::fprintf(stderr, "kestrelvane: unknown command '%s'\n\n%s", command.c_str(), usage);
    return exitUsage;
}
