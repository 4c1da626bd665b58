#pragma once

#include "KestrelvaneKit/usb/PropertyList.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "KestrelvaneKit/wire/ReceiveBuffer.h"
#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace kestrelvane::testing {

/// The usbmuxd simulator run as a program (KV_USBMUXD_SIM), with its virtual
/// phones given on the command line.
class SimulatedUsbmuxd {
public:
    explicit SimulatedUsbmuxd(const std::vector<std::string>& phones)
        : socket_(folder_.path() / "usbmuxd") {
        std::vector<std::string> argv{KV_USBMUXD_SIM, "--socket", socket_.string()};
        for (const auto& phone : phones) {
            argv.insert(argv.end(), {"--phone", phone});
        }
        process_ = std::make_unique<ChildProcess>(argv);
        ready_ = process_->readLine() == "listening on " + socket_.string();
    }
    bool ready() const { return ready_; }
    UsbmuxdClient::SocketAddress address() const { return {socket_.string(), {}, 0}; }

    /// Sends one request of the simulator's own and returns its "Number".
    std::optional<std::int64_t> request(const PropertyList& body) const {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socket_.c_str());
        std::optional<std::int64_t> number;
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            const Bytes packet =
                UsbmuxdProtocol::encode(1, body.serialize(PropertyList::Format::xml));
            if (::write(fd, packet.data(), packet.size()) == static_cast<ssize_t>(packet.size())) {
                ReceiveBuffer buffer;
                std::uint8_t chunk[4096];
                ssize_t got = 0;
                while (!number && (got = ::read(fd, chunk, sizeof chunk)) > 0) {
                    buffer.append(ByteView(chunk, static_cast<std::size_t>(got)));
                    if (auto decoded = UsbmuxdProtocol::decode(buffer)) {
                        number = PropertyList::integerAt(PropertyList::parse(decoded->body).get(),
                                                         "Number");
                    }
                }
            }
        }
        ::close(fd);
        return number;
    }
    bool detach(const std::string& serial) const {
        PropertyList body = PropertyList::dictionary();
        body.set("MessageType", PropertyList::string("Detach"));
        body.set("SerialNumber", PropertyList::string(serial));
        return request(body) == 0;
    }
    /// Ends the simulator and counts the tunnels it opened over its whole run.
    int tunnelsOpened() {
        process_->terminate();
        int tunnels = 0;
        while (auto line = process_->readLine()) {
            tunnels += line->rfind("tunnel to ", 0) == 0 ? 1 : 0;
        }
        return tunnels;
    }

private:
    TemporaryFolder folder_;
    std::filesystem::path socket_;
    std::unique_ptr<ChildProcess> process_;
    bool ready_ = false;
};

} // namespace kestrelvane::testing
