#include "KestrelvaneKit/wire/FrameChannel.h"

#include "KestrelvaneKit/wire/FrameCodec.h"

#include <algorithm>
#include <string>

namespace kestrelvane {

FrameChannel::FrameChannel(std::shared_ptr<KestrelvaneStream> stream) : stream_(std::move(stream)) {
    if (!stream_) {
        throw std::invalid_argument("FrameChannel needs a stream");
    }
}

void FrameChannel::start() {
    stream_->start();
}

void FrameChannel::cancel() noexcept {
    stream_->close();
}

void FrameChannel::sendFrame(ByteView payload) {
    stream_->send(FrameCodec::encode(payload));
}

void FrameChannel::sendRaw(ByteView bytes) {
    stream_->send(bytes);
}

FrameChannel::FrameTooLarge::FrameTooLarge(std::uint64_t announced, std::uint64_t limit)
    : std::runtime_error("frame of " + std::to_string(announced) + " bytes exceeds the limit of " +
                         std::to_string(limit)) {
}

Bytes FrameChannel::receiveFrame(std::uint64_t maxPayloadLength) {
    const std::lock_guard lock(receiveMutex_);
    while (true) {
        if (const auto length = FrameCodec::peekLength(buffer_.view());
            length && *length > maxPayloadLength) {
            throw FrameTooLarge(*length, maxPayloadLength);
        }
        if (auto payload = FrameCodec::decode(buffer_)) {
            return std::move(*payload);
        }
        // A failing receive leaves what is buffered in place.
        buffer_.append(stream_->receive(refillSize));
    }
}

void FrameChannel::receiveRawInto(MutableByteView into) {
    const std::lock_guard lock(receiveMutex_);
    const std::size_t buffered = std::min(buffer_.size(), into.size());
    std::copy_n(buffer_.view().begin(), buffered, into.begin());
    buffer_.consume(buffered);
    std::size_t filled = buffered;
    // The buffer is empty from here on, so a failure can hand the bytes back
    // in order by buffering them again.
    try {
        while (filled < into.size()) {
            filled += stream_->receiveInto(into.subspan(filled));
        }
    } catch (...) {
        buffer_.append(ByteView(into.data(), filled));
        throw;
    }
}

std::size_t FrameChannel::takeBuffered(MutableByteView into) {
    const std::lock_guard lock(receiveMutex_);
    const std::size_t taken = std::min(buffer_.size(), into.size());
    std::copy_n(buffer_.view().begin(), taken, into.begin());
    buffer_.consume(taken);
    return taken;
}

} // namespace kestrelvane
