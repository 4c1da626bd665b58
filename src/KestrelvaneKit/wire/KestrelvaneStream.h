#pragma once

#include "KestrelvaneKit/wire/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace kestrelvane {

/// The error vocabulary that every stream shares: StreamError for the end of
/// a stream (and for one that cannot be opened), std::system_error for a
/// transport that failed, with errno as its code and the failing call in its
/// message ("send() failed (104)", see callError()).
class StreamError : public std::runtime_error {
public:
    enum class Kind { refused, closed };

    /// The stream could not be opened; `reason` says why.
    static StreamError refused(std::string reason);
    /// The stream has ended: the peer closed it, it was closed here, or it was
    /// cancelled before it became ready.
    static StreamError closed();

    Kind kind() const noexcept { return kind_; }
    bool isClosed() const noexcept { return kind_ == Kind::closed; }
    /// The reason given with `refused`; empty for `closed`.
    const std::string& reason() const noexcept { return reason_; }

    friend bool operator==(const StreamError& a, const StreamError& b) noexcept {
        return a.kind_ == b.kind_ && a.reason_ == b.reason_;
    }

private:
    StreamError(Kind kind, std::string reason, const std::string& what);

    Kind kind_;
    std::string reason_;
};

/// A connected, ordered, reliable byte stream to the peer. Every transport
/// implements it; nothing above this interface knows which one is in use.
///
/// A `send` and a `receive` may run at the same time on two threads. The bytes
/// of one `send` call are never interleaved with those of another.
class KestrelvaneStream {
public:
    virtual ~KestrelvaneStream() = default;

    /// Brings the stream to a state in which bytes can flow. Called once, first.
    /// Throws StreamError::closed when cancelled before ready, a transport error otherwise.
    virtual void start() = 0;

    /// Returns once every byte of `data` has been accepted by the transport.
    virtual void send(ByteView data) = 0;

    /// Waits for bytes and returns at most `max` of them. May return an empty
    /// buffer (the caller calls again); the end of the stream is always
    /// StreamError::closed, never an empty read.
    virtual Bytes receive(std::int64_t max) = 0;

    /// As receive(max) with max = into.size(), but the bytes land at the front
    /// of `into`; returns how many (0 means none yet: call again). `into` must
    /// not be empty. The default copies what receive() returns; transports
    /// override it to read straight into the caller's memory.
    virtual std::size_t receiveInto(MutableByteView into);

    /// Ends the stream and releases the transport; wakes a waiting `receive`.
    /// Never fails; a second call does nothing.
    virtual void close() noexcept = 0;

protected:
    /// receive(max) for a transport that reads into the caller's memory:
    /// receiveInto() a buffer of at most 1 MiB, whatever `max` asks.
    Bytes receiveThroughInto(std::int64_t max);

    KestrelvaneStream() = default;
    KestrelvaneStream(const KestrelvaneStream&) = delete;
    KestrelvaneStream& operator=(const KestrelvaneStream&) = delete;
};

/// Passes every call on to another stream: the base of decorators, which
/// override only what they change.
class ForwardingStream : public KestrelvaneStream {
public:
    void start() override { inner_->start(); }
    void send(ByteView data) override { inner_->send(data); }
    Bytes receive(std::int64_t max) override { return inner_->receive(max); }
    std::size_t receiveInto(MutableByteView into) override { return inner_->receiveInto(into); }
    void close() noexcept override { inner_->close(); }

protected:
    explicit ForwardingStream(std::shared_ptr<KestrelvaneStream> inner)
        : inner_(std::move(inner)) {}

    const std::shared_ptr<KestrelvaneStream> inner_;
};

} // namespace kestrelvane
