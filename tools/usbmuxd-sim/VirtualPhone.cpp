#include "VirtualPhone.h"

#include "KestrelvaneKit/network/KestrelvaneService.h"
#include "KestrelvaneKit/session/ReceiverService.h"
#include "KestrelvaneKit/session/UsbPhones.h"
#include "TunnelCapture.h"

#include <atomic>
#include <map>
#include <memory>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace kestrelvane::sim {
namespace {

void echo(int fd) {
    std::uint8_t buffer[65536];
    try {
        while (const std::size_t n = FileDescriptor::readSome(fd, buffer)) {
            FileDescriptor::sendAll(fd, ByteView(buffer, n));
        }
    } catch (const std::system_error&) {
        // The client has gone: so has the echo.
    }
}

} // namespace

VirtualPhone VirtualPhone::parse(const std::string& description) {
    const auto first = description.find(',');
    const auto second = first == std::string::npos ? first : description.find(',', first + 1);
    if (second == std::string::npos) {
        throw std::invalid_argument("phone '" + description + "' is not SERIAL,PRODUCTID,RECEIVER");
    }
    VirtualPhone phone;
    phone.serial = description.substr(0, first);
    if (phone.serial.empty()) {
        throw std::invalid_argument("phone '" + description + "' has an empty serial");
    }
    const std::string product = description.substr(first + 1, second - first - 1);
    std::size_t used = 0;
    try {
        phone.productID = std::stoll(product, &used, 0);
    } catch (const std::exception&) {
        used = 0;
    }
    if (product.empty() || used != product.size() || phone.productID < 0) {
        throw std::invalid_argument("phone '" + description + "' has a bad product id '" + product +
                                    "'");
    }
    const std::string receiver = description.substr(second + 1);
    static const std::map<std::string, Receiver> named = {{"test", Receiver::test},
                                                          {"echo", Receiver::echo},
                                                          {"none", Receiver::none},
                                                          {"vanished", Receiver::vanished}};
    if (receiver.starts_with("folder=") && receiver.size() > 7) {
        phone.receiver = Receiver::folder;
        phone.folder = receiver.substr(7);
    } else if (const auto found = named.find(receiver); found != named.end()) {
        phone.receiver = found->second;
    } else {
        throw std::invalid_argument("phone '" + description + "' has an unknown receiver '" +
                                    receiver + "' (folder=DIR, test, echo, none, vanished)");
    }
    return phone;
}

bool VirtualPhone::accepts(std::uint16_t port) const noexcept {
    const bool extended =
        !versionOne && (receiver == Receiver::folder || receiver == Receiver::test);
    return (port == KestrelvaneService::listenerPort && receiver != Receiver::none &&
            receiver != Receiver::vanished) ||
           (port == KestrelvaneService::extensionPort && extended);
}

void VirtualPhone::switchOn(OnLine onLine) {
    if (receiver != Receiver::folder && receiver != Receiver::test) {
        return;
    }
    ReceiverService::Options options;
    if (receiver == Receiver::folder) {
        options.folder = folder;
    }
    if (!versionOne) {
        try {
            options.partials = ReceiverService::defaultPartialsFolder();
        } catch (const std::exception&) {
            versionOne = true; // nowhere to keep partials: the first version only
        }
    }
    service_ = std::make_shared<ReceiverService>(
        options,
        [serial = serial, onLine = std::move(onLine)](const ReceiverService::Report& report) {
            using Kind = ReceiverService::Report::Kind;
            if (report.kind == Kind::saved || report.kind == Kind::failed) {
                onLine(serial + ": " + report.name + " " +
                       (report.kind == Kind::saved ? std::string("saved")
                                                   : "failed: " + report.message));
            } else if (report.kind == Kind::refused) {
                onLine(serial + ": connection refused: all sessions taken");
            }
        });
}

void VirtualPhone::serve(int fd, std::uint16_t port) const {
    if (receiver == Receiver::echo) {
        echo(fd);
        return;
    }
    // The stream gets its own descriptor; the simulator keeps `fd` so that it
    // can shut the tunnel down from outside.
    FileDescriptor own(::dup(fd));
    if (!service_ || !own) {
        return;
    }
    std::shared_ptr<KestrelvaneStream> stream = UsbPhones::stream(std::move(own));
    if (!capture.empty()) {
        static std::atomic<int> tunnels{0};
        try {
            stream = std::make_shared<TunnelCapture>(std::move(stream), capture,
                                                     serial + "-" + std::to_string(port) + "-" +
                                                         std::to_string(++tunnels));
        } catch (const std::system_error&) {
            return; // a tunnel that cannot be recorded is not served unrecorded
        }
    }
    service_->serve(std::move(stream), port == KestrelvaneService::extensionPort);
}

} // namespace kestrelvane::sim
