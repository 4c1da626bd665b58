#include "KestrelvaneKit/session/Destination.h"

#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/ServiceBrowser.h"
#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/session/ExtendedStream.h"
#include "KestrelvaneKit/session/UsbPhones.h"

#include <charconv>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <vector>

namespace kestrelvane {
namespace {

std::uint16_t parsePort(const std::string& text) {
    int port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port < 1 || port > 65535) {
        throw std::invalid_argument("'" + text + "' is not a port number");
    }
    return static_cast<std::uint16_t>(port);
}

/// A ready TCP connection to `host` and `port`.
std::shared_ptr<TcpConnection> connectOverTcp(const std::string& host, std::uint16_t port,
                                              const std::string& where,
                                              const std::stop_token& stop) {
    using Cause = ConnectError::Cause;
    const std::string cannot = "cannot connect to " + where + ": ";
    try {
        auto connection = std::make_shared<TcpConnection>(host, port);
        // The connection waits for an unreachable network to come back; a
        // destination gives up after a while, or when its caller stops it.
        if (!BonjourStream(connection).start(Destination::connectTimeout, stop)) {
            const std::string why = stop.stop_requested()
                                        ? "stopped"
                                        : "no answer within " +
                                              std::to_string(Destination::connectTimeout.count()) +
                                              " seconds";
            throw ConnectError(Cause::timedOut, cannot + why);
        }
        return connection;
    } catch (const std::system_error& error) {
        if (error.code() == std::errc::connection_refused) {
            throw ConnectError(Cause::refused,
                               "connection refused by " + where +
                                   ": nothing is listening there (is `kestrelvane receive` "
                                   "running?)");
        }
        throw ConnectError(error.code() == std::errc::timed_out ? Cause::timedOut
                                                                : Cause::unreachable,
                           cannot + error.what());
    } catch (const StreamError&) {
        throw ConnectError(Cause::unreachable, cannot + "the connection closed");
    }
}

/// Browses DNS-SD until `name` shows up, the lookup time has passed or the
/// caller stops.
std::optional<DiscoveredService> lookUp(const std::string& name, const std::stop_token& stop) {
    std::mutex mutex;
    std::condition_variable_any changed;
    std::optional<DiscoveredService> found;
    ServiceBrowser browser([&](const std::vector<DiscoveredService>& services) {
        for (const auto& service : services) {
            if (service.name == name) {
                {
                    const std::lock_guard lock(mutex);
                    found = service;
                }
                changed.notify_all();
                return;
            }
        }
    });
    browser.start();
    {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, stop, Destination::lookupTimeout, [&] { return found.has_value(); });
    }
    browser.stop();
    const std::lock_guard lock(mutex);
    return found;
}

} // namespace

Destination Destination::usb(std::string serial) {
    return {.kind = Kind::usb, .serial = std::move(serial)};
}

Destination Destination::address(std::string host, std::uint16_t port) {
    return {.kind = Kind::address, .host = std::move(host), .port = port};
}

Destination Destination::announced(std::string service) {
    return {.kind = Kind::service, .service = std::move(service)};
}

Destination Destination::parse(const std::string& text) {
    if (text == "usb") {
        return usb();
    }
    if (text.starts_with("usb:") && text.size() > 4) {
        return usb(text.substr(4));
    }
    // An address ends in ":PORT" (or starts with "["); any other text names a
    // receiver, colons and all ("Mac mini: Photos").
    const auto colon = text.rfind(':');
    const bool numbered = colon != std::string::npos && colon + 1 < text.size() &&
                          text.find_first_not_of("0123456789", colon + 1) == std::string::npos;
    if (!numbered && !text.empty() && text.front() != '[') {
        return announced(text);
    }
    std::string host;
    if (!text.empty() && text.front() == '[') {
        const auto close = text.find(']');
        if (close == std::string::npos || close + 1 != colon) {
            throw std::invalid_argument("'" + text + "' is not [ADDR]:PORT");
        }
        host = text.substr(1, close - 1);
    } else if (colon == std::string::npos || text.find(':') != colon) {
        throw std::invalid_argument("'" + text + "' is not usb, usb:SERIAL, HOST:PORT, " +
                                    "[ADDR]:PORT or a receiver's name");
    } else {
        host = text.substr(0, colon);
    }
    if (host.empty()) {
        throw std::invalid_argument("'" + text + "' names no host");
    }
    return address(std::move(host), parsePort(text.substr(colon + 1)));
}

std::string Destination::describe() const {
    switch (kind) {
    case Kind::usb:
        return serial.empty() ? "the iPhone on USB" : "the iPhone " + serial + " on USB";
    case Kind::address:
        return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
               std::to_string(port);
    case Kind::service:
        break;
    }
    return "\"" + service + "\" on the network";
}

std::string Destination::text() const {
    switch (kind) {
    case Kind::usb:
        return serial.empty() ? "usb" : "usb:" + serial;
    case Kind::address:
        return describe();
    case Kind::service:
        break;
    }
    return service;
}

std::shared_ptr<TcpConnection> Destination::reach(const std::stop_token& stop) const {
    if (kind == Kind::address) {
        return connectOverTcp(host, port, describe(), stop);
    }
    const auto found = lookUp(service, stop);
    if (!found) {
        throw ConnectError(ConnectError::Cause::unreachable,
                           "no receiver announces itself as \"" + service + "\" on the network (" +
                               std::string(KestrelvaneService::type) + ", looked for " +
                               std::to_string(lookupTimeout.count()) + " seconds)");
    }
    // Numeric addresses need no name service that knows ".local"; the first
    // that answers is the receiver (another may be a bridge of this machine).
    std::vector<std::string> addresses = found->addresses;
    if (addresses.empty()) {
        addresses.push_back(found->host);
    }
    for (std::size_t i = 0;; ++i) {
        try {
            return connectOverTcp(addresses[i], found->port, describe(), stop);
        } catch (const ConnectError&) {
            if (i + 1 == addresses.size() || stop.stop_requested()) {
                throw;
            }
        }
    }
}

std::shared_ptr<KestrelvaneStream> Destination::connect(const std::stop_token& stop,
                                                        const std::optional<Trust>& trust) const {
    if (kind == Kind::usb) {
        return UsbPhones().connect(serial);
    }
    if (!trust) {
        return std::make_shared<BonjourStream>(reach(stop));
    }
    PrivateLink::Opened opened = PrivateLink::toReceiver([&] { return reach(stop); }, *trust,
                                                         text(), Admission::Purpose::send, stop);
    if (opened.resume) {
        return std::make_shared<ExtendedStream>(opened.stream,
                                                opened.stream->ownFingerprint().hex());
    }
    return opened.stream;
}

PrivateLink::Opened Destination::connectToPair(const Trust& trust,
                                               const std::stop_token& stop) const {
    if (kind == Kind::usb) {
        throw std::invalid_argument("an iPhone on USB needs no pairing");
    }
    return PrivateLink::toReceiver([&] { return reach(stop); }, trust, text(),
                                   Admission::Purpose::pair, stop);
}

} // namespace kestrelvane
