#pragma once

#include "KestrelvaneKit/wire/Bytes.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace kestrelvane {

/// A TCP connection that reports its progress as states: to a host and port
/// (name lookup included, IPv4 and IPv6) or around a socket a listener
/// accepted.
///
/// start() works on a private thread and reports preparing, then ready,
/// failed or — while the network is unreachable, retrying once a second —
/// waiting. cancel() may come at any time, also while connecting; it reports
/// cancelled and wakes any thread blocked in send() or receive(). State
/// reports reach the handler one at a time and in order, from the thread that
/// caused them or, while another thread is delivering, from that thread (so a
/// report may arrive after the call that caused it has returned); a handler
/// may call setStateHandler() and cancel().
///
/// Errors carry the failing call and errno, e.g. "connect() failed (111)";
/// name lookup errors use resolverCategory(). With an idle timeout set, a
/// send() or receive() that makes no progress for that long fails with
/// ETIMEDOUT ("recv() timed out after 60 s").
class TcpConnection {
public:
    enum class State { setup, preparing, waiting, ready, failed, cancelled };
    using Error = std::optional<std::system_error>;
    /// Called with every new state; `error` is set for waiting and failed.
    using StateHandler = std::function<void(State state, const Error& error)>;

    /// How long a connection waits before trying an unreachable network again.
    static constexpr std::chrono::milliseconds waitingRetryInterval{1000};

    /// A connection to `host` (a name or a numeric IPv4/IPv6 address) and `port`.
    TcpConnection(std::string host, std::uint16_t port);
    /// Takes ownership of a connected socket; start() reports ready at once.
    explicit TcpConnection(FileDescriptor connectedSocket);
    ~TcpConnection();
    TcpConnection(const TcpConnection&) = delete;
    TcpConnection& operator=(const TcpConnection&) = delete;

    void setStateHandler(StateHandler handler);
    /// Begins connecting. Does nothing while connecting or ready; after failed
    /// it tries afresh; after cancelled it reports cancelled again.
    void start();
    /// Ends the connection. A second call does nothing.
    void cancel() noexcept;
    State state() const;

    /// How long one send() or receive() may wait without moving a byte before
    /// it fails with ETIMEDOUT; zero (the default) waits for ever. Any time,
    /// any thread; a wait already under way keeps its earlier limit.
    void setIdleTimeout(std::chrono::milliseconds timeout);
    std::chrono::milliseconds idleTimeout() const;

    /// Writes every byte of `data`; concurrent sends never interleave.
    /// Throws std::system_error ("send() failed (errno)"); ECANCELED after cancel().
    void send(ByteView data);
    /// Waits for bytes and puts what arrives (at least one, at most
    /// `into.size()`) at the front of `into`: how many, or 0 at the peer's
    /// end. Throws std::system_error.
    std::size_t receive(MutableByteView into);

    /// The ready socket, for a protocol that drives it itself (TLS); -1
    /// before ready. It stays open until the connection is destroyed.
    int nativeSocket() const;
    /// The error of a call that waited the idle timeout in vain.
    std::system_error idleError(const char* call) const;

    /// The error category of getaddrinfo() results (EAI_*).
    static const std::error_category& resolverCategory() noexcept;

private:
    void enqueueLocked(State state, Error error);
    void deliverReports();
    int socketFor(const char* call) const;
    void applyIdleTimeoutLocked();
    void connectLoop();
    /// The connected socket; none with `error` set, or none when cancel() woke it.
    FileDescriptor connectOnce(Error& error);
    /// Waits until `fd` can be written to or `timeout` ms have passed (-1:
    /// never); false when cancel() woke it first.
    bool waitUnlessCancelled(int fd, int timeout);

    const std::string host_;
    const std::uint16_t port_ = 0;
    const bool accepted_ = false;
    FileDescriptor wakeFd_; // eventfd: cancel() wakes the connecting thread with it

    mutable std::mutex mutex_; // guards everything below
    StateHandler handler_;
    State state_ = State::setup;
    bool cancelRequested_ = false;
    bool connecting_ = false;
    FileDescriptor socket_; // the ready socket; closed only by the destructor
    std::chrono::milliseconds idleTimeout_{0};
    std::deque<std::pair<State, Error>> pendingReports_;
    bool delivering_ = false;
    std::vector<std::thread> connectors_; // one per attempt; joined by the destructor

    std::mutex sendMutex_;
    std::mutex receiveMutex_;
};

} // namespace kestrelvane
