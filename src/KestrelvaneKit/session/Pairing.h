#pragma once

#include "KestrelvaneKit/network/TlsStream.h"

#include <functional>
#include <string>

namespace kestrelvane {

/// What a person is shown while pairing: the other device's name and
/// fingerprint, and the code this device computed.
struct PairingOffer {
    std::string peerName;
    Fingerprint peer;
    std::string code; ///< six digits as "123 456"
};

/// Pairing two devices over a TLS connection neither trusts yet: a
/// commitment to the receiver's random bytes, then both random bytes
/// revealed, then a six-digit code from both certificates, both random bytes
/// and the TLS session, which each person checks by typing the code the
/// other screen shows (docs/security.md gives the construction and why a
/// relay wins once in a million). Runs after the hello and the receiver's
/// welcome; stores nothing: the caller does when the outcome is `paired`.
namespace Pairing {

enum class Outcome {
    paired,            ///< both people typed the code the other screen showed
    codesDiffer,       ///< this person typed another code than this end's
    peerDeclined,      ///< the other end's person did not confirm
    commitmentBroken,  ///< the receiver's random bytes do not match its commitment
    brokenAfterReveal, ///< the connection ended once random bytes were revealed
};

/// Shows `offer` to the person and returns what they typed: the code the
/// other device shows. Spaces do not count.
using AskPerson = std::function<std::string(const PairingOffer& offer)>;

/// What ties a pairing to one connection: the two certificates as this end
/// saw them, and the TLS session's exported secret.
struct Binding {
    Fingerprint sender, receiver;
    std::array<std::uint8_t, 32> secret{};

    /// The binding of a started TLS stream, whose client is the sender.
    static Binding of(TlsStream& stream);
};

/// The sender's part, over `stream` (a started TLS stream's own binding, or
/// any stream with a binding, for tests).
Outcome asSender(KestrelvaneStream& stream, const Binding& binding, const std::string& receiverName,
                 const AskPerson& ask);
Outcome asReceiver(KestrelvaneStream& stream, const Binding& binding, const std::string& senderName,
                   const AskPerson& ask);
/// The same over a started TLS stream, bound to it.
Outcome asSender(TlsStream& stream, const std::string& receiverName, const AskPerson& ask);
Outcome asReceiver(TlsStream& stream, const std::string& senderName, const AskPerson& ask);

/// The code both ends compute, as "123 456".
std::string code(const Binding& binding, const std::array<std::uint8_t, 32>& senderNonce,
                 const std::array<std::uint8_t, 32>& receiverNonce);

} // namespace Pairing
} // namespace kestrelvane
