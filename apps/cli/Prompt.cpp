#include "Prompt.h"

#include "KestrelvaneKit/wire/UnicodeText.h"

#include <cerrno>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace kestrelvane::cli {
namespace {

/// One line from standard input, read a byte at a time so that nothing
/// after it is taken; nothing at the end of input or the deadline.
std::optional<std::string> readLineBefore(std::chrono::steady_clock::time_point deadline) {
    std::string line;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
        const int ready = left.count() > 0 ? ::poll(&input, 1, static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        char c = 0;
        if (ready <= 0 || ::read(STDIN_FILENO, &c, 1) != 1) {
            return std::nullopt;
        }
        if (c == '\n') {
            return line;
        }
        line += c;
    }
}

} // namespace

std::string askForCode(std::FILE* out, const std::string& intro, const PairingOffer& offer,
                       const std::string& otherScreen) {
    std::fprintf(out,
                 "%s \"%s\"\n  fingerprint %s\nCode on this screen:\n\n    %s\n\n"
                 "Type the code %s shows, then Enter: ",
                 intro.c_str(), UnicodeText::printable(offer.peerName).c_str(),
                 offer.peer.grouped().c_str(), offer.code.c_str(), otherScreen.c_str());
    std::fflush(out);
    if (::isatty(STDIN_FILENO)) {
        if (::tcgetpgrp(STDIN_FILENO) != ::getpgrp()) {
            std::fprintf(out, "\n(not in the foreground of its terminal: no answer)\n");
            return {};
        }
        ::tcflush(STDIN_FILENO, TCIFLUSH);
    }
    return readLineBefore(std::chrono::steady_clock::now() + answerTime).value_or("");
}

} // namespace kestrelvane::cli
