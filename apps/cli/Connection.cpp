#include "Connection.h"

#include "CommandLine.h"
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/KestrelvaneService.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace kestrelvane::cli {
namespace {

/// How long a TCP connection may take to become ready before `send` gives up.
constexpr std::chrono::seconds connectTimeout{15};

std::shared_ptr<KestrelvaneStream> connectOverTcp(const Destination& destination) {
    auto stream = std::make_shared<BonjourStream>(std::make_shared<TcpConnection>(
        destination.host, static_cast<std::uint16_t>(destination.port)));
    // The connection waits for an unreachable network to come back; a
    // command gives up after a while instead.
    std::mutex mutex;
    std::condition_variable changed;
    bool settled = false;
    bool timedOut = false;
    std::jthread watchdog([&] {
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, connectTimeout, [&] { return settled; })) {
            timedOut = true;
            lock.unlock();
            stream->close();
        }
    });
    const auto settle = [&] {
        {
            const std::lock_guard lock(mutex);
            settled = true;
        }
        changed.notify_all();
        watchdog.join();
    };
    const std::string where = destination.describe();
    try {
        stream->start();
    } catch (const std::system_error& error) {
        settle();
        if (error.code() == std::errc::connection_refused) {
            throw ConnectError("connection refused by " + where +
                               ": nothing is listening there (is `kestrelvane receive` running?)");
        }
        throw ConnectError("cannot connect to " + where + ": " + error.what());
    } catch (const StreamError&) {
        settle();
        throw ConnectError(timedOut ? "cannot connect to " + where + ": no answer within " +
                                          std::to_string(connectTimeout.count()) + " seconds"
                                    : "cannot connect to " + where + ": the connection closed");
    }
    settle();
    return stream;
}

std::shared_ptr<KestrelvaneStream> connectOverUsb() {
    UsbmuxdClient client;
    const std::string daemon = client.address().describe();
    std::vector<UsbmuxdClient::Device> devices;
    try {
        devices = client.listDevices();
    } catch (const UsbmuxdError& error) {
        throw ConnectError(usbmuxdFailure(error, daemon));
    }
    if (devices.empty()) {
        throw ConnectError("no iPhone attached (usbmuxd at " + daemon + " lists none)");
    }
    const auto& phone = devices.front();
    UsbmuxdClient::ConnectResult result;
    try {
        result = client.connect(phone.id, KestrelvaneService::listenerPort);
    } catch (const UsbmuxdError& error) {
        throw ConnectError("usbmuxd at " + daemon + " failed to connect: " + error.what());
    }
    switch (result.kind) {
    case UsbmuxdClient::ConnectResult::Kind::tunneled:
        return std::make_shared<UsbmuxdStream>(result.fileDescriptor);
    case UsbmuxdClient::ConnectResult::Kind::connectionRefused:
        throw ConnectError("Kestrelvane is not listening on the iPhone (" + phone.serial +
                           "): open the app on the phone and try again");
    case UsbmuxdClient::ConnectResult::Kind::badDevice:
        throw ConnectError("the iPhone (" + phone.serial + ") was detached");
    case UsbmuxdClient::ConnectResult::Kind::otherError:
        break;
    }
    throw ConnectError("usbmuxd could not connect to the iPhone: " + result.message + " (" +
                       std::to_string(result.code) + ")");
}

} // namespace

Destination Destination::parse(const std::string& text) {
    if (text == "usb") {
        return Destination{};
    }
    Destination destination;
    destination.kind = Kind::tcp;
    std::string portText;
    if (!text.empty() && text.front() == '[') {
        const auto close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
            throw UsageError("--to takes usb, HOST:PORT or [ADDR]:PORT, not '" + text + "'");
        }
        destination.host = text.substr(1, close - 1);
        portText = text.substr(close + 2);
    } else {
        const auto colon = text.rfind(':');
        if (colon == std::string::npos || text.find(':') != colon) {
            throw UsageError("--to takes usb, HOST:PORT or [ADDR]:PORT, not '" + text + "'");
        }
        destination.host = text.substr(0, colon);
        portText = text.substr(colon + 1);
    }
    if (destination.host.empty()) {
        throw UsageError("--to '" + text + "' names no host");
    }
    destination.port = parsePort(portText);
    return destination;
}

std::string Destination::describe() const {
    if (kind == Kind::usb) {
        return "the iPhone on USB";
    }
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string usbmuxdFailure(const UsbmuxdError& error, const std::string& daemon) {
    if (error.kind() != UsbmuxdError::Kind::socketError) {
        return "usbmuxd at " + daemon + " did not answer as expected: " + error.what();
    }
    // The client names the call that failed: reaching the socket, or the
    // conversation with a daemon that was there.
    const std::string& call = error.message();
    if (call.starts_with("socket(") || call.starts_with("connect(") ||
        call.starts_with("getaddrinfo(")) {
        return "usbmuxd is not running at " + daemon + " (" + call + ")";
    }
    return "usbmuxd at " + daemon + " closed the connection (" + call + ")";
}

std::shared_ptr<KestrelvaneStream> connectTo(const Destination& destination) {
    return destination.kind == Destination::Kind::usb ? connectOverUsb()
                                                      : connectOverTcp(destination);
}

} // namespace kestrelvane::cli
