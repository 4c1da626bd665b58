#pragma once

#include "KestrelvaneKit/network/TcpConnection.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <stop_token>

namespace kestrelvane {

/// The transfer protocol's stream over a TCP connection of the local network:
/// one to a receiver found by DNS-SD, or one a listener accepted.
///
/// Errors of the network stack (refused, reset, unreachable...) reach the
/// caller unchanged as std::system_error; the peer's orderly end and a cancel
/// during start() are StreamError::closed. A send and a receive may wait at the
/// same time on two threads.
class BonjourStream final : public KestrelvaneStream {
public:
    /// Takes a connection that has not been started yet.
    explicit BonjourStream(std::shared_ptr<TcpConnection> connection);

    /// Starts the connection and waits until it is ready. Returns at once when
    /// already started (or starting); after a failure a later call tries again.
    /// Waits without a time-out while the connection is waiting for a network.
    void start() override;
    /// As start(), but gives up after `limit` (zero: never) or once `stop` is
    /// requested: then cancels the connection and returns false.
    bool start(std::chrono::milliseconds limit, const std::stop_token& stop);
    void send(ByteView data) override;
    /// At least one and at most `max` bytes, as they arrive; never empty.
    Bytes receive(std::int64_t max) override;
    /// As receive(), straight into `into`; never 0.
    std::size_t receiveInto(MutableByteView into) override;
    /// Cancels the connection; a waiting receive() ends with its error.
    void close() noexcept override;

    TcpConnection& connection() noexcept { return *connection_; }

private:
    const std::shared_ptr<TcpConnection> connection_;
    std::mutex mutex_; // guards isStarted_
    bool isStarted_ = false;
};

} // namespace kestrelvane
