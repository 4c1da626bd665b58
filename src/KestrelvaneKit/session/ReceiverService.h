#pragma once

#include "KestrelvaneKit/session/PrivateLink.h"
#include "KestrelvaneKit/session/ScratchFolder.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kestrelvane {

class TcpListener;

/// A receiver as a service: takes connections (from a listener or handed
/// in), serves each as one session of the receiving engine on a thread of
/// its own, at most `maxSessions` at once, keeps files still arriving in a
/// scratch folder of its own (and removes those of receivers that were
/// killed), and tells what happens, session by session and file by file.
class ReceiverService {
public:
    struct Options {
        /// Where files are saved (DIR/ALBUM for an album); none verifies
        /// every file and keeps nothing.
        std::optional<std::filesystem::path> folder{};
        /// Sessions served at once; a further connection is closed at once.
        std::size_t maxSessions = 8;
        /// A session whose sender moves no byte for this long ends; zero
        /// waits for ever. Applies to connections a listener accepts.
        std::chrono::seconds idleTimeout{120};
        /// Who is served of the connections a listener accepts, over TLS or
        /// in clear (see PrivateLink). None: every one, in clear, as a phone
        /// serves.
        std::optional<PrivateLink::Policy> policy{};
        /// Where the partial files of broken sessions are kept. With one, the
        /// receiver serves the resume extension to paired senders over TLS.
        std::optional<std::filesystem::path> partials{};
    };

    /// $XDG_CACHE_HOME/kestrelvane/partials (~/.cache/… without it), made
    /// private to this user: where a receiver keeps partial files. Throws
    /// IdentityError when it cannot be made so.
    static std::filesystem::path defaultPartialsFolder();

    struct Report {
        enum class Kind {
            connected, ///< a session began; `message` says who, when known
            saved,     ///< `name` is on disk and acknowledged
            failed,    ///< `name` was not saved; `message` says why
            broken,    ///< the session's connection failed; `message` says how
            ended,     ///< the session is over; `saved` and `failed` count its files
            refused,   ///< a connection beyond maxSessions was closed (session 0), or
                       ///< one the policy does not serve (`message` says who and why)
            paired, ///< the sender `name` paired with this receiver; `message` is its fingerprint
        };
        Kind kind = Kind::connected;
        int session = 0; ///< numbered from 1 in the order sessions began; 0 for refused
        std::string name{};
        std::string message{};
        int saved = 0;
        int failed = 0;
    };
    /// Called from session threads, one report at a time.
    using OnReport = std::function<void(const Report&)>;

    /// Makes the scratch folder; throws std::system_error when it cannot.
    ReceiverService(Options options, OnReport onReport);
    /// Stops, and waits for every session to end.
    ~ReceiverService();
    ReceiverService(const ReceiverService&) = delete;
    ReceiverService& operator=(const ReceiverService&) = delete;

    /// Accepts connections from `listener` and serves each on its own thread
    /// until stop(), or with `once` until the first session has ended; then
    /// waits for the sessions still running. Throws what made accepting fail
    /// (after closing and waiting for every session).
    void run(TcpListener& listener, bool once = false);
    /// Serves one session over `stream` on the calling thread, unless
    /// maxSessions are running already (then the stream is closed and
    /// refused reported). Returns when the session has ended. With
    /// `resume` (a phone's extension port) the session speaks the resume
    /// extension if the sender announces it and `partials` is set.
    void serve(const std::shared_ptr<KestrelvaneStream>& stream, bool resume = false);
    /// From any thread: stops accepting and closes every session's connection
    /// (a file cut short is the sender's to resend). Later connections are closed at once.
    void stop() noexcept;

private:
    struct Session {
        std::shared_ptr<KestrelvaneStream> stream; ///< none once the session has ended
        std::thread thread;                        ///< none for a session serve() runs
    };

    /// Takes a session place and a number; none when the service is full.
    std::optional<int> admit(const std::shared_ptr<KestrelvaneStream>& stream);
    /// Serves one session; with `resumeDevice` it speaks the resume
    /// extension if the sender announces it, tying partial files to that
    /// device (the one the transport proved; empty: the one the sender names).
    void runSession(const std::shared_ptr<KestrelvaneStream>& stream, int number,
                    const std::string& peer = {},
                    const std::optional<std::string>& resumeDevice = {});
    /// The stream to serve for a connection the listener accepted (`clear`
    /// without a policy); none, with its report made, when it is not served.
    std::shared_ptr<KestrelvaneStream> admitted(const std::shared_ptr<TcpConnection>& connection,
                                                std::shared_ptr<KestrelvaneStream> clear,
                                                int number, std::string& peer,
                                                std::optional<std::string>& resumeDevice);
    void release(int number);
    bool roomToAdmit();
    /// Joins the threads of the sessions that have ended, or with `all` of every session.
    void joinThreads(bool all);
    void report(const Report& report);

    const Options options_;
    const OnReport onReport_;
    ScratchFolder scratch_;
    std::mutex reportMutex_; // one report at a time
    std::mutex mutex_;       // guards everything below
    // By number. A thread is joined soon after its session has ended, so that
    // threads and descriptors stay bounded however many connections come and go.
    std::map<int, Session> sessions_;
    int nextNumber_ = 1;
    bool stopping_ = false;
    std::size_t admitting_ = 0; // connections the policy has not decided on yet
    TcpListener* listener_ = nullptr;
};

} // namespace kestrelvane
