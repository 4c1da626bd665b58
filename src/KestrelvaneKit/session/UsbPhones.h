#pragma once

#include "KestrelvaneKit/network/KestrelvaneService.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrelvane {

/// The iPhones usbmuxd lists and the receiver on each: listing, probing and
/// opening a tunnel, with every failure of the daemon told apart as a
/// ConnectError. Any thread may call; calls are serialised.
class UsbPhones {
public:
    using Phone = UsbmuxdClient::Device;
    using Address = UsbmuxdClient::SocketAddress;

    /// What a connect to a phone's receiver port gave.
    using Probe = UsbmuxdClient::ConnectResult;

    /// The daemon named by USBMUXD_SOCKET_ADDRESS, else the default socket.
    UsbPhones();
    explicit UsbPhones(Address address);

    /// Where the daemon is, as messages name it.
    std::string daemon() const;
    /// The attached phones, in usbmuxd's order. Throws ConnectError.
    std::vector<Phone> list();
    /// Connects `port` on `phone`. Throws ConnectError when the daemon fails;
    /// every answer it gives is an outcome.
    Probe probe(const Phone& phone, std::uint16_t port = KestrelvaneService::listenerPort);
    /// Connects the phone's receiver: on its extension port when a receiver
    /// that speaks the resume extension listens there (`extended`), else on
    /// port 9876. Throws ConnectError when the daemon fails.
    Probe probeReceiver(const Phone& phone, bool& extended);
    /// A started stream to the receiver on the phone with `serial`, or on the
    /// first phone listed when `serial` is empty. Throws ConnectError.
    std::shared_ptr<KestrelvaneStream> connect(const std::string& serial = {});
    /// The stream over a tunnel a probe opened, which it takes over; one to
    /// the extension port announces the extension as this device.
    static std::shared_ptr<KestrelvaneStream> stream(FileDescriptor tunnel, bool extended = false);

private:
    /// The daemon's failure as a ConnectError; rethrows what is not one.
    [[noreturn]] void fail() const;

    UsbmuxdClient client_;
};

} // namespace kestrelvane
