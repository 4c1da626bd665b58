#include "KestrelvaneKit/wire/FrameCodec.h"

#include <stdexcept>

namespace kestrelvane::FrameCodec {

Bytes encode(ByteView payload) {
    const std::uint64_t length = payload.size();
    if (length > maxPayloadLength) {
        throw std::length_error("frame payload exceeds 4294967295 bytes");
    }
    Bytes frame;
    frame.reserve(prefixLength + payload.size());
    frame.push_back(static_cast<std::uint8_t>(length >> 24));
    frame.push_back(static_cast<std::uint8_t>(length >> 16));
    frame.push_back(static_cast<std::uint8_t>(length >> 8));
    frame.push_back(static_cast<std::uint8_t>(length));
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

std::optional<std::uint32_t> peekLength(ByteView buffer) {
    if (buffer.size() < prefixLength) {
        return std::nullopt;
    }
    return (std::uint32_t{buffer[0]} << 24) | (std::uint32_t{buffer[1]} << 16) |
           (std::uint32_t{buffer[2]} << 8) | std::uint32_t{buffer[3]};
}

std::optional<Bytes> decode(ReceiveBuffer& buffer) {
    const auto length = peekLength(buffer.view());
    if (!length) {
        return std::nullopt;
    }
    // 64-bit arithmetic: a length near 2^32 must not wrap around.
    const std::uint64_t frameSize = std::uint64_t{*length} + prefixLength;
    if (buffer.size() < frameSize) {
        return std::nullopt;
    }
    buffer.consume(prefixLength);
    return buffer.take(*length);
}

} // namespace kestrelvane::FrameCodec
