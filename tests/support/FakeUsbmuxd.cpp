#include "support/FakeUsbmuxd.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace kestrelvane::testing {

std::optional<UsbmuxdProtocol::Decoded> readPacket(int fd, ReceiveBuffer& buffer) {
    for (std::uint8_t chunk[4096];;) {
        if (auto packet = UsbmuxdProtocol::decode(buffer)) {
            return packet;
        }
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return std::nullopt;
        }
        buffer.append(ByteView(chunk, static_cast<std::size_t>(n)));
    }
}

FakeUsbmuxd::FakeUsbmuxd(Script script)
    : socketPath_((folder_.path() / "usbmuxd").string()), script_(std::move(script)) {
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath_.c_str(), sizeof address.sun_path - 1);
    if (listenFd_ < 0 ||
        ::bind(listenFd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listenFd_, 16) != 0) {
        throw std::runtime_error("fake usbmuxd cannot listen at " + socketPath_);
    }
    thread_ = std::thread([this] { serve(); });
}

FakeUsbmuxd::~FakeUsbmuxd() {
    ::shutdown(listenFd_, SHUT_RDWR); // wakes accept()
    thread_.join();
    ::close(listenFd_);
}

std::vector<FakeUsbmuxd::Request> FakeUsbmuxd::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void FakeUsbmuxd::serve() {
    for (;;) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0 && errno == EINTR) {
            continue;
        }
        if (fd < 0) {
            return; // the listening socket was shut down
        }
        // A client that neither asks nor hangs up holds the fake no longer than this.
        const timeval patience{10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        ReceiveBuffer buffer;
        if (const auto packet = readPacket(fd, buffer)) {
            const PropertyList plist = PropertyList::parse(packet->body);
            const Request request{packet->tag, PropertyList::formatOf(packet->body),
                                  PropertyList::stringAt(plist.get(), "MessageType").value_or(""),
                                  PropertyList::integerAt(plist.get(), "DeviceID"),
                                  PropertyList::integerAt(plist.get(), "PortNumber")};
            {
                const std::lock_guard lock(mutex_);
                requests_.push_back(request);
            }
            // A reply small enough for one write; then the client hangs up.
            const Reply reply = script_(request);
            std::uint8_t byte = 0;
            if (!reply.empty() && ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) > 0 &&
                ::read(fd, &byte, 1) == 0) {
                ++hangUps_;
            }
        }
        ::close(fd);
    }
}

} // namespace kestrelvane::testing
