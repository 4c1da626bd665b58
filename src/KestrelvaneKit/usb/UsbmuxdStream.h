#pragma once

#include "KestrelvaneKit/wire/FileDescriptor.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <cstdint>
#include <mutex>

namespace kestrelvane {

/// A KestrelvaneStream over the connected socket of a usbmuxd tunnel (or any
/// connected stream socket). The descriptor stays blocking: a send and a
/// receive may each block on their own thread at the same time, and sends
/// are serialised so that their bytes never interleave.
///
/// close() shuts the socket down, which wakes a blocked receive or send; the
/// descriptor itself is released by whichever comes last of close() and the
/// system call still running on it, so it is never closed under a thread that
/// is using it (and cannot be reused by another open in between).
class UsbmuxdStream final : public KestrelvaneStream {
public:
    static constexpr int socketBufferBytes = 4 * 1024 * 1024;

    explicit UsbmuxdStream(FileDescriptor fileDescriptor);
    /// The owner's end: closes the stream if close() was not called, which
    /// releases the descriptor. No call may be running on it by then; to wake
    /// a thread blocked in receive() or send(), call close() and let that
    /// thread return before destroying the stream.
    ~UsbmuxdStream() override;

    /// The tunnel is connected already: returns at once.
    void start() override {}
    /// Writes all of `data`; a peer that has gone away is a std::system_error
    /// "send() failed (errno)", never SIGPIPE.
    void send(ByteView data) override;
    /// Between 1 and `max` bytes as soon as any are there; `max` must be at
    /// least 1. The peer's close, or a close() here, is StreamError::closed.
    Bytes receive(std::int64_t max) override;
    /// As receive(), read straight into `into`; never 0.
    std::size_t receiveInto(MutableByteView into) override;
    void close() noexcept override;

private:
    /// Registers a system call about to use the descriptor; throws
    /// StreamError::closed once the stream is closed.
    void enter();
    /// Ends a registered call; releases the descriptor if close() is waiting on it.
    void leave() noexcept;
    bool isClosed() const;

    FileDescriptor fd_;       // emptied (closed) once closed and no call is left on it
    std::mutex sendMutex_;    // one send at a time
    std::mutex receiveMutex_; // one receive at a time
    mutable std::mutex stateMutex_;
    bool closed_ = false;     // guarded by stateMutex_
    int callsInProgress_ = 0; // guarded by stateMutex_
};

} // namespace kestrelvane
