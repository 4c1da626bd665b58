#include "KestrelvaneKit/session/UsbPhones.h"

#include "KestrelvaneKit/network/DeviceIdentity.h"
#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/session/ExtendedStream.h"
#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"

#include <algorithm>

namespace kestrelvane {

UsbPhones::UsbPhones() : UsbPhones(Address::fromEnvironment()) {
}

UsbPhones::UsbPhones(Address address) : client_(std::move(address)) {
}

std::string UsbPhones::daemon() const {
    return client_.address().describe();
}

void UsbPhones::fail() const {
    const std::string where = daemon();
    try {
        throw;
    } catch (const std::exception& error) {
        const auto* usbmuxd = dynamic_cast<const UsbmuxdError*>(&error);
        const auto kind = usbmuxd ? usbmuxd->kind() : UsbmuxdError::Kind::malformed;
        if (kind == UsbmuxdError::Kind::connectFailed) {
            throw ConnectError(ConnectError::Cause::usbmuxdNotRunning,
                               "usbmuxd is not running at " + where + " (" + usbmuxd->message() +
                                   ")");
        }
        if (kind == UsbmuxdError::Kind::socketError) {
            throw ConnectError(ConnectError::Cause::usbmuxdHungUp, "usbmuxd at " + where +
                                                                       " closed the connection (" +
                                                                       usbmuxd->message() + ")");
        }
        // A malformed reply, or one that is no property list at all.
        throw ConnectError(ConnectError::Cause::usbmuxdFailed,
                           "usbmuxd at " + where + " did not answer as expected: " + error.what());
    }
}

namespace {

/// This device's fingerprint, which partial files on the phone are tied to;
/// empty when the key cannot be had (the phone then keeps no partials).
std::string thisDevice() {
    try {
        return DeviceIdentity::loadOrCreate(DeviceIdentity::defaultFolder()).fingerprint().hex();
    } catch (const std::exception&) {
        return {};
    }
}

} // namespace

std::vector<UsbPhones::Phone> UsbPhones::list() {
    try {
        return client_.listDevices();
    } catch (...) {
        fail();
    }
}

UsbPhones::Probe UsbPhones::probe(const Phone& phone, std::uint16_t port) {
    try {
        return client_.connect(phone.id, port);
    } catch (...) {
        fail();
    }
}

std::shared_ptr<KestrelvaneStream> UsbPhones::connect(const std::string& serial) {
    const auto phones = list();
    const auto phone = std::find_if(phones.begin(), phones.end(), [&](const Phone& candidate) {
        return serial.empty() || candidate.serial == serial;
    });
    if (phone == phones.end()) {
        throw ConnectError(ConnectError::Cause::noIphone,
                           serial.empty()
                               ? "no iPhone attached (usbmuxd at " + daemon() + " lists none)"
                               : "no iPhone " + serial + " attached (usbmuxd at " + daemon() +
                                     " lists " + std::to_string(phones.size()) + " other)");
    }
    bool extended = false;
    Probe probe = probeReceiver(*phone, extended);
    switch (probe.outcome) {
    case Probe::Outcome::listening:
        return stream(std::move(probe.tunnel), extended);
    case Probe::Outcome::notListening:
        throw ConnectError(ConnectError::Cause::appNotListening,
                           "Kestrelvane is not listening on the iPhone (" + phone->serial +
                               "): open the app on the phone and try again");
    case Probe::Outcome::detached:
        throw ConnectError(ConnectError::Cause::noIphone,
                           "the iPhone (" + phone->serial + ") was detached");
    case Probe::Outcome::failed:
        break;
    }
    throw ConnectError(ConnectError::Cause::usbmuxdFailed,
                       "usbmuxd could not connect to the iPhone: " + probe.message + " (" +
                           std::to_string(probe.code) + ")");
}

UsbPhones::Probe UsbPhones::probeReceiver(const Phone& phone, bool& extended) {
    // A phone that speaks the resume extension listens on its own port too;
    // one that does not refuses it at once, and gets the first version.
    Probe probe = this->probe(phone, KestrelvaneService::extensionPort);
    extended = probe.outcome == Probe::Outcome::listening;
    if (probe.outcome == Probe::Outcome::notListening) {
        probe = this->probe(phone);
    }
    return probe;
}

std::shared_ptr<KestrelvaneStream> UsbPhones::stream(FileDescriptor tunnel, bool extended) {
    auto stream = std::make_shared<UsbmuxdStream>(std::move(tunnel));
    if (extended) {
        return std::make_shared<ExtendedStream>(stream, thisDevice());
    }
    return stream;
}

} // namespace kestrelvane
