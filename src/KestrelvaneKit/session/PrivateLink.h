#pragma once

#include "KestrelvaneKit/network/PairedDevices.h"
#include "KestrelvaneKit/network/TlsStream.h"
#include "KestrelvaneKit/session/Admission.h"
#include "KestrelvaneKit/session/Pairing.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>

namespace kestrelvane {

/// Who this device is to the devices it pairs with: the folder that holds its
/// key and its paired list, and the name it gives them.
struct Trust {
    std::filesystem::path folder;
    std::string name;

    /// The user's own: DeviceIdentity::defaultFolder() and the host name.
    static Trust ofThisDevice();
};

/// The time a receiver allows pairing: from its start for openFor, for
/// `attempts` pairings that reach the point of showing a code, one at a time.
class PairingWindow {
public:
    static constexpr int attempts = 3;
    static constexpr std::chrono::minutes openFor{5};

    enum class Entry { granted, closed, busy };

    PairingWindow();
    /// Takes the one place for a pairing, when the window is open and free.
    Entry enter();
    /// Gives the place back; an attempt that showed a code is used up.
    void leave(bool showedCode);

private:
    std::mutex mutex_;
    const std::chrono::steady_clock::time_point closes_;
    int attemptsLeft_ = attempts;
    bool busy_ = false;
};

/// Opening a TLS connection between two Kestrelvane devices: the handshake,
/// the hello and the answer, and what each end's trust decides
/// (docs/security.md). The transfer protocol then runs inside unchanged.
namespace PrivateLink {

/// How long a connection may take, from its first byte to the answer to its
/// hello, however slowly the bytes come.
inline constexpr std::chrono::seconds admissionTime{10};

struct Opened {
    std::shared_ptr<TlsStream> stream;
    std::string peerName; ///< the name the receiver gave in its welcome
    bool resume = false;  ///< the receiver serves the resume extension
};

/// The sender's side of a connection to `destination` (the text the user
/// gave). For a send, the receiver must be the one device the
/// paired list has under that text or name, pinned before this end shows its
/// own certificate; for pairing, any device. Throws ConnectError (notPaired,
/// keyChanged, unknownToReceiver, pairingRefused; unreachable for a failed
/// handshake), IdentityError when this device's key cannot be had.
/// `connect` makes the TCP connection, once the paired list has been found
/// to name a device (so that nothing reaches a receiver that would be
/// refused anyway).
Opened toReceiver(const std::function<std::shared_ptr<TcpConnection>()>& connect,
                  const Trust& trust, const std::string& destination, Admission::Purpose purpose,
                  const std::stop_token& stop = {});

/// What a receiver serves.
struct Policy {
    Trust trust;
    /// Senders in clear and unpaired senders over TLS are served too.
    bool acceptAnyone = false;
    /// None: pairing is refused.
    std::shared_ptr<PairingWindow> pairing;
    /// Asks this receiver's person for the code the sender shows.
    Pairing::AskPerson ask;
    /// How long a sender has to be admitted (see admissionTime).
    std::chrono::milliseconds admissionTime = PrivateLink::admissionTime;
    /// This receiver's key, read once; none: read from trust.folder for
    /// each connection.
    std::optional<DeviceIdentity> identity{};
    /// The receiver keeps partial files and serves the resume extension.
    bool resume = false;
};

/// What became of a connection a receiver accepted.
struct Admitted {
    std::shared_ptr<KestrelvaneStream> stream{}; ///< to serve; none when refused or just paired
    std::string peer{};                          ///< who it was, for the receiver's lines
    std::string refusal{};                       ///< why it is not served, when not
    std::optional<PairedDevice> paired{};        ///< a pairing that succeeded (and is stored)
    /// The sender's fingerprint (hex), when it and the policy speak the
    /// resume extension: what its partial files are tied to.
    std::optional<std::string> resumeDevice{};
};

/// The receiver's side of an accepted connection: its first byte (0x16 TLS,
/// 0x00 a sender in clear, anything else refused), the handshake, the hello,
/// the policy and, when asked for and allowed, pairing. Never throws for
/// what the peer does.
Admitted fromSender(const std::shared_ptr<TcpConnection>& connection, const Policy& policy);

} // namespace PrivateLink
} // namespace kestrelvane
