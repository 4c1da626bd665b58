#pragma once

#include "KestrelvaneKit/network/PairedDevices.h"
#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/session/Pairing.h"

#include <stop_token>
#include <string>
#include <vector>

namespace kestrelvane {

/// A pairing made from the sender's side with a receiver on the network.
struct PairedReceiver {
    Pairing::Outcome outcome = Pairing::Outcome::peerDeclined;
    std::string receiverName; ///< the name it gave
    /// When `paired`: what is kept now, under the destination's text.
    PairedDevice device{};
    /// Earlier pairings under the same text whose key differs from the new one.
    std::vector<PairedDevice> replaced{};
};

/// Connects to the network receiver at `destination` to pair (see
/// Destination::connectToPair), runs Pairing::asSender() with `ask`, and when
/// both people typed the other's code keeps the receiver in `trust`'s paired
/// list under destination.text(). Throws ConnectError when no connection is
/// made, IdentityError when the device's key or list cannot be read or
/// written. A request to `stop` ends the connection, being made or pairing
/// (a pairing stopped after the codes were drawn is `brokenAfterReveal`).
PairedReceiver pairWithReceiver(const Destination& destination, const Trust& trust,
                                const Pairing::AskPerson& ask, const std::stop_token& stop = {});

} // namespace kestrelvane
