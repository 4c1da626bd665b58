#pragma once

#include "KestrelvaneKit/wire/Bytes.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"
#include "KestrelvaneKit/wire/ReceiveBuffer.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace kestrelvane {

/// One stream plus a receive buffer: frames out, frames and raw byte runs in.
///
/// Sends go straight to the stream, which keeps each call's bytes together, so
/// several threads may send frames at once and a send may run while another
/// thread waits in a receive. Receives are serialised among themselves; the
/// protocol has one receiving thread per channel. Errors of the stream pass
/// through unchanged.
class FrameChannel {
public:
    /// A frame whose announced length is above the caller's bound; thrown
    /// before any of its payload is buffered.
    class FrameTooLarge : public std::runtime_error {
    public:
        FrameTooLarge(std::uint64_t announced, std::uint64_t limit);
    };

    /// Protocol messages are small JSON objects; a bound for reading them.
    static constexpr std::uint64_t maxMessageBytes = 1'048'576;
    /// How many bytes one refill asks the stream for.
    static constexpr std::int64_t refillSize = 262'144;

    explicit FrameChannel(std::shared_ptr<KestrelvaneStream> stream);

    void start();
    /// Closes the stream; wakes a thread waiting in a receive.
    void cancel() noexcept;

    /// Writes the frame of `payload` with one stream send.
    void sendFrame(ByteView payload);
    /// Writes `bytes` unchanged, without a length prefix.
    void sendRaw(ByteView bytes);

    /// The payload of the next frame. A prefix announcing more than
    /// `maxPayloadLength` bytes throws FrameTooLarge instead of waiting for
    /// (and buffering) them: every reader bounds what a peer can make it hold.
    Bytes receiveFrame(std::uint64_t maxPayloadLength);
    /// Fills `into` with exactly the next into.size() bytes of the stream,
    /// unframed: what is buffered first, the rest read from the stream straight
    /// into `into` without passing through the buffer. When it fails, whatever
    /// it had received is buffered again, as if it had never been taken.
    void receiveRawInto(MutableByteView into);
    /// Moves up to into.size() of the bytes received but not yet taken (such
    /// as those a failed receiveRawInto() gave back) into `into`; returns how
    /// many. Never waits.
    std::size_t takeBuffered(MutableByteView into);

private:
    const std::shared_ptr<KestrelvaneStream> stream_;
    std::mutex receiveMutex_; // serialises receivers; guards buffer_
    ReceiveBuffer buffer_;
};

} // namespace kestrelvane
