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
        notPaired,         ///< this device has not paired with the receiver (or cannot tell which)
        keyChanged,        ///< the receiver shows another key than the one paired
        unknownToReceiver, ///< the receiver has not paired with this device
        pairingRefused,    ///< the receiver does not allow pairing now
    };

    ConnectError(Cause cause, const std::string& message)
        : std::runtime_error(message), cause_(cause) {}

    Cause cause() const noexcept { return cause_; }
    /// Whether the two devices do not trust each other (rather than not meeting at all).
    bool isDistrust() const noexcept {
        return cause_ == Cause::notPaired || cause_ == Cause::keyChanged ||
               cause_ == Cause::unknownToReceiver;
    }

private:
    Cause cause_;
};

} // namespace kestrelvane
