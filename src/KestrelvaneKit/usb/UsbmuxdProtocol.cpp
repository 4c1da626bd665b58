#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"

namespace kestrelvane {

UsbmuxdError::UsbmuxdError(Kind kind, std::int64_t code, std::string message)
    : std::runtime_error(message.empty() ? std::string("usbmuxd error") : message), kind_(kind),
      code_(code), message_(std::move(message)) {
}

UsbmuxdError UsbmuxdError::malformed(std::string message) {
    return UsbmuxdError(Kind::malformed, 0, std::move(message));
}

UsbmuxdError UsbmuxdError::connectFailed(std::int64_t code, std::string message) {
    return UsbmuxdError(Kind::connectFailed, code, std::move(message));
}

UsbmuxdError UsbmuxdError::socketError(std::string message) {
    return UsbmuxdError(Kind::socketError, 0, std::move(message));
}

namespace UsbmuxdProtocol {
namespace {

void appendUInt32LE(Bytes& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

std::uint32_t readUInt32LE(ByteView bytes, std::size_t offset) {
    return std::uint32_t{bytes[offset]} | (std::uint32_t{bytes[offset + 1]} << 8) |
           (std::uint32_t{bytes[offset + 2]} << 16) | (std::uint32_t{bytes[offset + 3]} << 24);
}

} // namespace

Bytes encode(std::uint32_t tag, ByteView plist) {
    Bytes packet;
    packet.reserve(plist.size() + headerSize);
    appendUInt32LE(packet, static_cast<std::uint32_t>(plist.size() + headerSize));
    appendUInt32LE(packet, version);
    appendUInt32LE(packet, messageTypePlist);
    appendUInt32LE(packet, tag);
    packet.insert(packet.end(), plist.begin(), plist.end());
    return packet;
}

std::optional<Decoded> decode(ReceiveBuffer& buffer) {
    const ByteView bytes = buffer.view();
    if (bytes.size() < static_cast<std::size_t>(headerSize)) {
        return std::nullopt;
    }
    const std::uint32_t length = readUInt32LE(bytes, 0);
    if (length < headerSize) {
        throw UsbmuxdError::malformed("header total length " + std::to_string(length) + " < " +
                                      std::to_string(headerSize));
    }
    if (bytes.size() < length) {
        return std::nullopt;
    }
    Decoded packet{readUInt32LE(bytes, 12), {}};
    buffer.consume(static_cast<std::size_t>(headerSize));
    packet.body = buffer.take(length - static_cast<std::size_t>(headerSize));
    return packet;
}

} // namespace UsbmuxdProtocol
} // namespace kestrelvane
