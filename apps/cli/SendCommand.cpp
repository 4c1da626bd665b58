// kestrelvane send: plan the given paths, connect, send, report.
#include "CommandLine.h"
#include "Commands.h"
#include "KestrelvaneKit/intake/QueuePlanner.h"
#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/session/SendRun.h"
#include "KestrelvaneKit/wire/UnicodeText.h"
#include "SendReporter.h"

#include <cstdio>
#include <unistd.h>

namespace kestrelvane::cli {

const Command sendCommand{
    .name = "send",
    .about = "send photos and videos to an iPhone (USB) or a receiver (TCP)",
    .operands = "PATH...",
    .summary = {"Sends the photos and videos among PATH (folders are searched, other files and "
                "duplicates left out) and waits until the receiver has verified and "
                "acknowledged each one."},
    .options = {{"album", "NAME", "file the photos into this album on the receiving side"},
                {.name = "to",
                 .value = "DESTINATION",
                 .forms = {{"usb", "the first iPhone attached by USB, through usbmuxd (default; "
                                   "USBMUXD_SOCKET_ADDRESS chooses another usbmuxd socket)"},
                           {"usb:SERIAL", "the iPhone with this serial number"},
                           {"HOST:PORT", "a receiver on the network (\"[ADDR]:PORT\" for IPv6), "
                                         "for example `kestrelvane receive` on another "
                                         "computer, paired with this text (kestrelvane pair)"},
                           {"NAME", "the receiver that announces itself as NAME on the local "
                                    "network (`kestrelvane receive --advertise NAME`), paired "
                                    "with this name"}}},
                {"insecure", "",
                 "send in clear to a receiver on the network that accepts anyone (kestrelvane "
                 "receive --accept-anyone, or a phone's app); anyone on the way can read the "
                 "files. Refused for a paired destination"},
                {"json", "", "one JSON object per line per event, nothing else on stdout"}},
    .exitStatuses =
        {{exitOk, "every file was saved, or there was nothing to send among the paths"},
         {exitFailure,
          "some files were not saved (they are listed, to be sent again): the receiver refused "
          "or could not save them, the connection broke off, or a receiver reached in clear "
          "turned the connection away because it already serves --max-sessions senders; also "
          "when a PATH is missing or cannot be read (each is named)"},
         {exitUsage, "usage error"},
         {exitNoConnection,
          "no connection could be made: connection refused or no answer, usbmuxd not running "
          "(or it closed the connection), no iPhone attached, Kestrelvane not listening on the "
          "iPhone, the iPhone detached, or a receiver on the network closed the connection "
          "before admitting it (it may serve --max-sessions senders already)"},
         {exitNotTrusted,
          "the devices do not trust each other, and nothing was sent: not paired with the "
          "receiver, the receiver does not know this device, or its key has changed since "
          "pairing (someone may be in between)"}},
    .run = runSend,
};

namespace fs = std::filesystem;

int runSend(const std::vector<std::string>& arguments) {
    std::optional<Destination> destination;
    const CommandLine line(sendCommand, arguments, [&destination](const CommandLine& given) {
        try {
            destination = Destination::parse(given.value("to").value_or("usb"));
        } catch (const std::invalid_argument& error) {
            throw UsageError(std::string("--to: ") + error.what());
        }
        if (given.operands().empty()) {
            throw UsageError("nothing to send: give one or more files or folders");
        }
    });
    if (line.finished) {
        return *line.finished;
    }
    const bool json = line.has("json");
    // Messages for people go to stderr when stdout carries JSON.
    std::FILE* const messages = json ? stderr : stdout;

    std::vector<fs::path> paths(line.operands().begin(), line.operands().end());
    std::vector<fs::path> files;
    std::vector<QueuePlanner::Unreadable> unreadable;
    try {
        files = QueuePlanner::plan(paths, {}, &unreadable);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestrelvane send: %s\n", error.what());
        return exitFailure;
    }
    // Named, and not sent, but they do not stop the rest.
    for (const auto& path : unreadable) {
        std::fprintf(stderr, "kestrelvane send: %s: %s\n", path.path.c_str(),
                     path.error.message().c_str());
    }
    const int nothingLost = unreadable.empty() ? exitOk : exitFailure;
    if (files.empty()) {
        std::fputs("Nothing to send: no photos or videos among the given paths.\n", messages);
        return nothingLost;
    }

    SessionHeader session;
    if (auto album = UnicodeText::trimmed(line.value("album").value_or("")); !album.empty()) {
        session.albumName = std::move(album);
    }

    std::shared_ptr<KestrelvaneStream> stream;
    try {
        std::optional<Trust> trust;
        if (destination->kind != Destination::Kind::usb) {
            trust = Trust::ofThisDevice();
            const auto paired = PairedDevices(trust->folder).named(destination->text());
            if (line.has("insecure")) {
                if (!paired.empty()) {
                    std::fprintf(stderr,
                                 "kestrelvane send: %s is paired: it is reached "
                                 "privately, not with --insecure\n",
                                 destination->text().c_str());
                    return exitNotTrusted;
                }
                trust.reset();
                std::fprintf(stderr, "kestrelvane send: sending in clear (--insecure): anyone "
                                     "on the network path can read these files\n");
            } else if (paired.size() == 1) {
                std::fprintf(messages, "Sending privately to \"%s\" (%s)\n",
                             UnicodeText::printable(paired.front().name).c_str(),
                             paired.front().fingerprint.shortHex().c_str());
            }
        }
        stream = destination->connect({}, trust);
    } catch (const ConnectError& error) {
        std::fprintf(stderr, "kestrelvane send: %s\n", error.what());
        return error.isDistrust() ? exitNotTrusted : exitNoConnection;
    } catch (const IdentityError& error) {
        std::fprintf(stderr, "kestrelvane send: %s\n", error.what());
        return exitFailure;
    }

    const auto style = json                      ? SendReporter::Style::json
                       : ::isatty(STDOUT_FILENO) ? SendReporter::Style::terminal
                                                 : SendReporter::Style::plain;
    SendReporter reporter(style, stdout);
    std::uint64_t totalBytes = 0;
    for (const auto& file : files) {
        std::error_code unknown;
        const auto size = fs::file_size(file, unknown);
        totalBytes += unknown ? 0 : size;
    }
    reporter.start(static_cast<std::int64_t>(files.size()), totalBytes, destination->describe(),
                   session.albumName);

    SendRun run(files, session,
                {.settled =
                     [&reporter](const SendRun::Settled& settled) {
                         reporter.acknowledged(settled.ack, settled.byteCount, settled.heldBytes);
                     },
                 .stray =
                     [](const Ack& ack) {
                         std::fprintf(stderr,
                                      "kestrelvane send: ignored an acknowledgement for \"%s\", "
                                      "which awaited none\n",
                                      ack.name.c_str());
                     },
                 .sent = [&reporter](std::uint64_t bytes) { reporter.sent(bytes); }});
    const SendRun::Outcome outcome = run.run(stream);
    std::vector<SendReporter::Unsaved> unsaved;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const auto& ack = outcome.acks[i];
        if (!ack || ack->status != Ack::Status::ok) {
            unsaved.push_back({files[i].filename().string(), files[i].string(),
                               ack ? ack->message.value_or("?") : "not acknowledged"});
        }
    }
    const int exitStatus = unsaved.empty() ? nothingLost : exitFailure;
    if (outcome.brokeOff) {
        std::fprintf(stderr, "kestrelvane send: the transfer broke off: %s\n",
                     outcome.brokeOff->c_str());
    }
    reporter.finish(unsaved, exitStatus);
    return exitStatus;
}

} // namespace kestrelvane::cli
