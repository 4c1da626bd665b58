// kestrelvane send: plan the given paths, connect, send, report.
#include "CommandLine.h"
#include "Commands.h"
#include "CountingStream.h"
#include "KestrelvaneKit/intake/QueuePlanner.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/wire/UnicodeText.h"
#include "SendReporter.h"

#include <cstdio>
#include <map>
#include <mutex>
#include <unistd.h>

namespace kestrelvane::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* sendUsage =
    R"(usage: kestrelvane send [--album NAME] [--to DESTINATION] [--json] [--log stderr]
                       PATH...

Sends the photos and videos among PATH (folders are searched, other files
and duplicates left out) and waits until the receiver has verified and
acknowledged each one.

  --album NAME      file the photos into this album on the receiving side
  --to usb          the first iPhone attached by USB, through usbmuxd (default;
                    USBMUXD_SOCKET_ADDRESS chooses another usbmuxd socket)
  --to usb:SERIAL   the iPhone with this serial number
  --to HOST:PORT    a receiver on the network ("[ADDR]:PORT" for IPv6), for
                    example `kestrelvane receive` on another computer
  --to NAME         the receiver that announces itself as NAME on the local
                    network (`kestrelvane receive --advertise NAME`)
  --json            one JSON object per line per event, nothing else on stdout
  --log stderr      the library's log lines on stderr instead of the journal

Exit status: 0 every file saved (or nothing to send), 1 some files not saved
(they are listed), 2 usage error, 3 no connection could be made.
)";

struct PlannedFile {
    fs::path path;
    std::string name;
    std::uint64_t bytes = 0;
};

/// The files whose saving the receiver confirmed, matched by name: each "ok"
/// acknowledgement credits one planned file of that name.
std::vector<SendReporter::Unsaved> unsavedFiles(const std::vector<PlannedFile>& planned,
                                                const std::vector<Ack>& acks,
                                                std::uint64_t& bytesSaved) {
    std::map<std::string, int> oks;
    std::map<std::string, std::string> errors;
    for (const auto& ack : acks) {
        if (ack.status == Ack::Status::ok) {
            ++oks[ack.name];
        } else {
            errors[ack.name] = ack.message.value_or("?");
        }
    }
    std::vector<SendReporter::Unsaved> unsaved;
    bytesSaved = 0;
    for (const auto& file : planned) {
        if (auto ok = oks.find(file.name); ok != oks.end() && ok->second > 0) {
            --ok->second;
            bytesSaved += file.bytes;
            continue;
        }
        const auto error = errors.find(file.name);
        unsaved.push_back({file.name, file.path.string(),
                           error != errors.end() ? error->second : "not acknowledged"});
    }
    return unsaved;
}

} // namespace

int runSend(const std::vector<std::string>& arguments) {
    std::optional<CommandLine> line;
    std::optional<Destination> destination;
    try {
        line.emplace(arguments, CommandLine::Grammar{.flags = {"json", "help"},
                                                     .valued = {"album", "to", "log"}});
        if (line->has("help")) {
            std::fputs(sendUsage, stdout);
            return exitOk;
        }
        applyLogOption(*line);
        try {
            destination = Destination::parse(line->value("to").value_or("usb"));
        } catch (const std::invalid_argument& error) {
            throw UsageError(std::string("--to: ") + error.what());
        }
        if (line->operands().empty()) {
            throw UsageError("nothing to send: give one or more files or folders");
        }
    } catch (const UsageError& error) {
        std::fprintf(stderr, "kestrelvane send: %s\n\n%s", error.what(), sendUsage);
        return exitUsage;
    }
    const bool json = line->has("json");
    // Messages for people go to stderr when stdout carries JSON.
    std::FILE* const messages = json ? stderr : stdout;

    std::vector<fs::path> paths(line->operands().begin(), line->operands().end());
    std::vector<PlannedFile> planned;
    try {
        for (const auto& path : QueuePlanner::plan(paths, {})) {
            std::error_code ignored;
            const auto size = fs::file_size(path, ignored);
            planned.push_back({path, path.filename().string(), ignored ? 0 : size});
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestrelvane send: %s\n", error.what());
        return exitSomeFilesNotSaved;
    }
    if (planned.empty()) {
        std::fputs("Nothing to send: no photos or videos among the given paths.\n", messages);
        return exitOk;
    }

    SessionHeader session;
    if (auto album = UnicodeText::trimmed(line->value("album").value_or("")); !album.empty()) {
        session.albumName = std::move(album);
    }

    std::shared_ptr<KestrelvaneStream> stream;
    try {
        stream = destination->connect();
    } catch (const ConnectError& error) {
        std::fprintf(stderr, "kestrelvane send: %s\n", error.what());
        return exitNoConnection;
    }

    const auto style = json                      ? SendReporter::Style::json
                       : ::isatty(STDOUT_FILENO) ? SendReporter::Style::terminal
                                                 : SendReporter::Style::plain;
    SendReporter reporter(style, stdout);
    std::uint64_t totalBytes = 0;
    std::map<std::string, std::uint64_t> bytesByName; // the later file of a name wins
    std::vector<fs::path> files;
    for (const auto& file : planned) {
        totalBytes += file.bytes;
        bytesByName[file.name] = file.bytes;
        files.push_back(file.path);
    }
    reporter.start(static_cast<std::int64_t>(planned.size()), totalBytes, destination->describe(),
                   session.albumName);

    std::vector<Ack> acks; // written by the acknowledgement reader, read after send returns
    // A receiver may acknowledge names it was never sent, or one file twice;
    // only the first acknowledgement of a file that awaits one counts.
    std::map<std::string, int> awaiting;
    for (const auto& file : planned) {
        ++awaiting[file.name];
    }
    std::optional<std::string> brokeOff;
    const double started = SendReporter::steadySeconds();
    FrameChannel channel(std::make_shared<CountingStream>(
        stream, [&reporter](std::uint64_t bytes) { reporter.sent(bytes); }));
    try {
        TransferClient().send(files, channel, session, [&](const TransferClient::Progress& step) {
            if (auto file = awaiting.find(step.fileName);
                file == awaiting.end() || file->second == 0) {
                std::fprintf(stderr,
                             "kestrelvane send: ignored an acknowledgement for \"%s\", which "
                             "awaited none\n",
                             step.fileName.c_str());
                return;
            } else {
                --file->second;
            }
            acks.push_back(step.ack);
            reporter.acknowledged(step.fileName, step.ack.status == Ack::Status::ok,
                                  step.ack.message, bytesByName[step.fileName]);
        });
    } catch (const std::exception& error) {
        brokeOff = error.what();
    }
    channel.cancel();

    SendReporter::Summary summary;
    summary.files = static_cast<std::int64_t>(planned.size());
    summary.seconds = SendReporter::steadySeconds() - started;
    summary.unsaved = unsavedFiles(planned, acks, summary.bytesSaved);
    summary.saved = summary.files - static_cast<std::int64_t>(summary.unsaved.size());
    summary.exitStatus = summary.unsaved.empty() ? exitOk : exitSomeFilesNotSaved;
    if (brokeOff) {
        std::fprintf(stderr, "kestrelvane send: the transfer broke off: %s\n", brokeOff->c_str());
    }
    reporter.finish(summary);
    return summary.exitStatus;
}

} // namespace kestrelvane::cli
