#pragma once

#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace kestrelvane::cli {

/// Where `send` goes: the first iPhone usbmuxd lists, or a receiver on TCP.
struct Destination {
    enum class Kind { usb, tcp };
    Kind kind = Kind::usb;
    std::string host; ///< without brackets, for tcp
    int port = 0;     ///< for tcp

    /// "usb" or "HOST:PORT" ("[ADDR]:PORT" for IPv6); throws UsageError.
    static Destination parse(const std::string& text);
    /// For people: "the iPhone on USB" or "HOST:PORT".
    std::string describe() const;
};

/// No connection could be made; what() says why, in words for people.
class ConnectError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A started stream to the destination's receiver. Throws ConnectError.
std::shared_ptr<KestrelvaneStream> connectTo(const Destination& destination);

/// What went wrong talking to usbmuxd at `daemon`, in words for people: "is
/// not running" only when its socket could not be reached at all.
std::string usbmuxdFailure(const UsbmuxdError& error, const std::string& daemon);

} // namespace kestrelvane::cli
