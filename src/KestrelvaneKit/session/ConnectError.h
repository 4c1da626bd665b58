#pragma once

#include <stdexcept>
#include <string>

namespace kestrelvane {

/// No connection to a destination could be made. `cause` tells the cases
/// apart for code; what() says it in words for people.
class ConnectError : public std::runtime_error {
public:
    enum class Cause {
        noIphone,          ///< usbmuxd lists no iPhone (or not the one named), or it went away
        appNotListening,   ///< the iPhone is there; nothing accepts the receiver's port
        usbmuxdNotRunning, ///< usbmuxd's socket cannot be reached
        usbmuxdHungUp,     ///< usbmuxd was there and closed the connection
        usbmuxdFailed,     ///< usbmuxd answered something unexpected, or an error
        refused,           ///< nothing listens at the network address
        unreachable,       ///< the host or receiver is unknown or cannot be reached
        timedOut,          ///< no answer in time
    };

    ConnectError(Cause cause, const std::string& message)
        : std::runtime_error(message), cause_(cause) {}

    Cause cause() const noexcept { return cause_; }

private:
    Cause cause_;
};

} // namespace kestrelvane
