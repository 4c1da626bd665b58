// kestrelvane receive: a desktop receiver that saves into a folder.
#include "CommandLine.h"
#include "Commands.h"
#include "KestrelvaneKit/network/KestrelvaneService.h"
#include "KestrelvaneKit/network/ServicePublisher.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/session/ReceiverService.h"
#include "KestrelvaneKit/wire/UnicodeText.h"
#include "Prompt.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <netdb.h>
#include <optional>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace kestrelvane::cli {
namespace {

namespace fs = std::filesystem;

/// Lines from several session threads, each whole and flushed at once.
class Output {
public:
    void line(const std::string& text) {
        const std::lock_guard lock(mutex_);
        std::fprintf(stdout, "%s\n", text.c_str());
        std::fflush(stdout);
    }

private:
    std::mutex mutex_;
};

/// Where the receiver listens: every interface, this machine only, or one
/// address of one interface.
struct Binding {
    TcpListener::Scope scope = TcpListener::Scope::anyAddress;
    std::optional<std::string> address{};

    std::unique_ptr<TcpListener> listen(std::uint16_t port) const {
        return address ? std::make_unique<TcpListener>(port, *address)
                       : std::make_unique<TcpListener>(port, scope);
    }
};

Binding bindingFor(const std::string& address) {
    if (address == "0.0.0.0" || address == "::" || address == "*") {
        return {};
    }
    if (address == "localhost") {
        return {.scope = TcpListener::Scope::loopback};
    }
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST; // an address, never a name to look up
    addrinfo* found = nullptr;
    if (::getaddrinfo(address.c_str(), nullptr, &hints, &found) != 0) {
        throw UsageError("--bind takes an IPv4 or IPv6 address, 0.0.0.0, :: or localhost, not '" +
                         address + "'");
    }
    ::freeaddrinfo(found);
    return {.address = address};
}

} // namespace

const Command receiveCommand{
    .name = "receive",
    .about = "receive files into a folder, as a phone would",
    .summary = {"Receives photos and videos as the phone does: verifies each file's SHA-256, saves "
                "it into DIR (into DIR/ALBUM when the sender names an album), and acknowledges "
                "it. Files are never overwritten (an identical resend is kept once; a different "
                "\"IMG_1.jpg\" is saved as \"IMG_1 (1).jpg\"), get their capture date as "
                "modification time, and are on disk (synced) before they are acknowledged. "
                "Several senders may connect at once. Stops on Ctrl+C or SIGTERM.",
                "Prints one line per file and one per session. Whatever a sender sends, a "
                "protocol message above 1 MiB or a file above 8 GiB ends its session, and "
                "nothing is written outside DIR."},
    .options =
        {{"dir", "DIR", "where received files go (created when missing)", {}, true},
         {"port", "PORT", "TCP port to listen on (default 9876; 0 picks a free one)",
          Option::Number{0, 65535}},
         {"bind", "ADDR",
          "listen on every interface (0.0.0.0 or ::, the default), on this machine only "
          "(localhost: 127.0.0.1 and ::1), or on one address of this machine only, IPv4 or IPv6 "
          "(such as 127.0.0.1, ::1 or 192.168.1.20)"},
         {"advertise", "[NAME]",
          "announce the receiver on the local network with DNS-SD (_kestrelvane._tcp) under NAME, "
          "by default the host name"},
         {"max-sessions", "N",
          "serve at most N senders at once (default 8); a further connection is closed at once, "
          "with a line saying so",
          Option::Number{1, 1024}},
         {"idle-timeout", "SECONDS",
          "end a session when its sender has sent nothing (or read nothing) for this long "
          "(default 120; 0 waits for ever)",
          Option::Number{0, 86'400}},
         {"once", "", "exit after the first session has ended"},
         {"allow-pairing", "",
          "let senders pair (kestrelvane pair) for the next 5 minutes, at most 3 attempts: each "
          "shows a code here and asks on standard input for the code the sender shows"},
         {"accept-anyone", "",
          "also serve senders that are not paired, and senders in clear (kestrelvane send "
          "--insecure, a phone's protocol); without it only paired senders are served, over "
          "TLS"}},
    .exitStatuses = {{exitOk, "stopped by Ctrl+C or SIGTERM, or the --once session ended"},
                     {exitFailure, "DIR cannot be used, nothing can listen on the port or "
                                   "address, no scratch folder can be made, or accepting "
                                   "connections failed"},
                     {exitUsage, "usage error"}},
    .run = runReceive,
};

int runReceive(const std::vector<std::string>& arguments) {
    Binding binding;
    const CommandLine line(receiveCommand, arguments, [&binding](const CommandLine& given) {
        if (const auto address = given.value("bind")) {
            binding = bindingFor(*address);
        }
    });
    if (line.finished) {
        return *line.finished;
    }
    fs::path folder = *line.value("dir");
    const auto port = static_cast<int>(line.number("port", KestrelvaneService::listenerPort));
    const auto maxSessions = static_cast<int>(line.number("max-sessions", 8));
    const auto idleSeconds = static_cast<int>(line.number("idle-timeout", 120));

    std::error_code error;
    fs::create_directories(folder, error);
    if (error || !fs::is_directory(folder)) {
        std::fprintf(stderr, "kestrelvane receive: cannot use %s as the folder: %s\n",
                     folder.c_str(), error ? error.message().c_str() : "not a folder");
        return exitFailure;
    }
    folder = fs::absolute(folder);

    // Ctrl+C and SIGTERM are taken by one thread with sigwait, so that every
    // other thread runs undisturbed and the stop is an ordinary call.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    std::unique_ptr<TcpListener> listener;
    try {
        listener = binding.listen(static_cast<std::uint16_t>(port));
    } catch (const std::exception& failure) {
        const std::string where = binding.address ? *binding.address + " port " : "port ";
        const auto* system = dynamic_cast<const std::system_error*>(&failure);
        const std::string why = system && system->code() == std::errc::address_not_available
                                    ? "no network interface of this machine has that address (" +
                                          std::string(failure.what()) + ")"
                                    : failure.what();
        std::fprintf(stderr, "kestrelvane receive: cannot listen on %s%d: %s\n", where.c_str(),
                     port, why.c_str());
        return exitFailure;
    }

    Output output;
    const auto say = [&output, maxSessions](const ReceiverService::Report& report) {
        const std::string session = "session " + std::to_string(report.session);
        const std::string name = UnicodeText::printable(report.name);
        switch (report.kind) {
        case ReceiverService::Report::Kind::connected:
            return output.line(session + ": connected" +
                               (report.message.empty() ? "" : " to " + report.message));
        case ReceiverService::Report::Kind::saved:
            return output.line("saved   " + name);
        case ReceiverService::Report::Kind::failed:
            return output.line("FAILED  " + name + ": " + report.message);
        case ReceiverService::Report::Kind::broken:
            return output.line(session + ": " + report.message);
        case ReceiverService::Report::Kind::ended:
            return output.line(session + " ended: " + std::to_string(report.saved) + " saved, " +
                               std::to_string(report.failed) + " failed");
        case ReceiverService::Report::Kind::refused:
            if (!report.message.empty()) {
                return output.line((report.session == 0 ? "connection" : session + ":") +
                                   " refused: " + report.message);
            }
            return output.line("connection refused: " + std::to_string(maxSessions) +
                               " sessions already open (--max-sessions)");
        case ReceiverService::Report::Kind::paired:
            return output.line(session + ": paired with \"" + name + "\" (" + report.message + ")");
        }
    };
    // Files still arriving wait in a folder of this receiver's own; what a
    // killed receiver left behind is removed here.
    std::unique_ptr<ReceiverService> service;
    const std::string ownName =
        line.value("advertise").value_or("").empty() ? hostName() : *line.value("advertise");
    std::string fingerprintHint;
    try {
        const auto keys = DeviceIdentity::defaultFolder();
        // A key that is not private (or cannot be made) stops the receiver here.
        PrivateLink::Policy policy{
            .trust = {keys, ownName},
            .acceptAnyone = line.has("accept-anyone"),
            .pairing = line.has("allow-pairing") ? std::make_shared<PairingWindow>() : nullptr,
            .ask =
                [](const PairingOffer& offer) {
                    return askForCode(stdout, "Pairing request from", offer, "the sender");
                },
            .identity = DeviceIdentity::loadOrCreate(keys)};
        fingerprintHint = policy.identity->fingerprint().shortHex();
        service = std::make_unique<ReceiverService>(
            ReceiverService::Options{.folder = folder,
                                     .maxSessions = static_cast<std::size_t>(maxSessions),
                                     .idleTimeout = std::chrono::seconds(idleSeconds),
                                     .policy = policy,
                                     .partials = ReceiverService::defaultPartialsFolder()},
            say);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kestrelvane receive: %s\n", failure.what());
        return exitFailure;
    }

    std::atomic<bool> finished{false};
    std::atomic<bool> interrupted{false};
    std::thread signalWaiter([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        if (!finished) {
            interrupted = true;
            service->stop(); // a file cut short is resent by the sender
        }
    });

    output.line("Receiving into " + folder.string() + " on port " +
                std::to_string(listener->port()));
    std::unique_ptr<ServicePublisher> publisher;
    if (line.has("advertise")) {
        // A hint for listings: senders check the whole key when they connect.
        publisher = std::make_unique<ServicePublisher>(
            ownName, listener->port(), std::vector<std::string>{"tls=1", "fp=" + fingerprintHint});
        publisher->publish();
        output.line("Advertising \"" + publisher->name() + "\" (" +
                    std::string(KestrelvaneService::type) + ")");
    }

    int status = exitOk;
    try {
        service->run(*listener, line.has("once"));
    } catch (const std::exception& failure) {
        output.line(std::string("cannot accept connections: ") + failure.what());
        status = exitFailure;
    }
    publisher.reset();

    finished = true;
    pthread_kill(signalWaiter.native_handle(), SIGTERM); // a no-op wake if it already ran
    signalWaiter.join();
    if (interrupted) {
        output.line("Stopped.");
    }
    return status;
}

} // namespace kestrelvane::cli
