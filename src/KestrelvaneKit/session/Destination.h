#pragma once

#include "KestrelvaneKit/session/PrivateLink.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

namespace kestrelvane {

/// Where a batch goes: an iPhone on USB (the first usbmuxd lists, or the one
/// with a serial), a receiver at a network address, or a receiver announced
/// on the local network by DNS-SD, by its service name.
struct Destination {
    enum class Kind { usb, address, service };

    Kind kind = Kind::usb;
    std::string serial{};   ///< usb: the phone's serial; empty for the first listed
    std::string host{};     ///< address: a name or a numeric address, without brackets
    std::uint16_t port = 0; ///< address
    std::string service{};  ///< service: the instance name it announces

    /// How long a network connection may take to become ready.
    static constexpr std::chrono::seconds connectTimeout{15};
    /// How long to look for a service name on the network.
    static constexpr std::chrono::seconds lookupTimeout{5};

    static Destination usb(std::string serial = {});
    static Destination address(std::string host, std::uint16_t port);
    static Destination announced(std::string service);

    /// "usb", "usb:SERIAL", "HOST:PORT", "[ADDR]:PORT", or a service name
    /// (any other text). Throws std::invalid_argument.
    static Destination parse(const std::string& text);
    /// For people: "the iPhone on USB", "HOST:PORT", "\"NAME\" on the network".
    std::string describe() const;

    /// The text it is written as (what parse() reads back): the key of a
    /// pairing made with it.
    std::string text() const;

    /// A started stream to the receiver there. Throws ConnectError; a request
    /// to `stop` ends a network connection still being made (as timedOut).
    /// With `trust`, a network receiver is reached over TLS and must be the
    /// device paired under text() (see PrivateLink); without, in clear, the
    /// protocol every phone speaks. USB is the same either way.
    std::shared_ptr<KestrelvaneStream> connect(const std::stop_token& stop = {},
                                               const std::optional<Trust>& trust = {}) const;
    /// A TLS connection to the network receiver there, admitted for pairing.
    /// Throws ConnectError, std::invalid_argument for USB.
    PrivateLink::Opened connectToPair(const Trust& trust, const std::stop_token& stop = {}) const;

    friend bool operator==(const Destination&, const Destination&) = default;

private:
    /// A ready TCP connection to the network receiver there.
    std::shared_ptr<TcpConnection> reach(const std::stop_token& stop) const;
};

} // namespace kestrelvane
