#pragma once

#include "KestrelvaneKit/wire/Bytes.h"
#include "KestrelvaneKit/wire/ReceiveBuffer.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace kestrelvane {

/// The errors of the USB transport.
class UsbmuxdError : public std::runtime_error {
public:
    enum class Kind { malformed, connectFailed, socketError };

    /// A packet or reply that cannot be what the daemon sends.
    static UsbmuxdError malformed(std::string message);
    /// The daemon's socket could not be reached (it is not running, or not
    /// there); `code` is errno, or the resolver's code for a host name.
    static UsbmuxdError connectFailed(std::int64_t code, std::string message);
    /// The conversation with a daemon that was there failed (it hung up, or a
    /// read or write failed); the message names the call and errno.
    static UsbmuxdError socketError(std::string message);

    Kind kind() const noexcept { return kind_; }
    /// The payload text.
    const std::string& message() const noexcept { return message_; }
    /// The payload code of connectFailed; 0 otherwise.
    std::int64_t code() const noexcept { return code_; }

    friend bool operator==(const UsbmuxdError& a, const UsbmuxdError& b) noexcept {
        return a.kind_ == b.kind_ && a.code_ == b.code_ && a.message_ == b.message_;
    }

private:
    UsbmuxdError(Kind kind, std::int64_t code, std::string message);

    Kind kind_;
    std::int64_t code_;
    std::string message_;
};

/// Packets of the usbmuxd control socket: a 16-byte little-endian header
/// (total length, version, message type, tag) followed by a property list.
namespace UsbmuxdProtocol {

inline constexpr std::uint32_t version = 1;
inline constexpr std::uint32_t messageTypePlist = 8;
inline constexpr std::int64_t headerSize = 16;

/// One packet cut out of a buffer.
struct Decoded {
    std::uint32_t tag = 0;
    Bytes body{};
    friend bool operator==(const Decoded&, const Decoded&) = default;
};

/// Header followed by `plist`. The body plus the header must fit in 32 bits.
Bytes encode(std::uint32_t tag, ByteView plist);

/// Cuts the first complete packet off the front of `buffer`; nothing (and
/// `buffer` untouched) while it is incomplete. A header declaring fewer bytes
/// than a header throws UsbmuxdError::malformed and consumes nothing.
std::optional<Decoded> decode(ReceiveBuffer& buffer);

} // namespace UsbmuxdProtocol
} // namespace kestrelvane
