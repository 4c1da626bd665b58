#include "support/FakeUsbmuxd.h"

#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kestrelvane::testing {
namespace {

/// The one request a client sends on its connection, or nothing if it hangs up first.
std::optional<UsbmuxdProtocol::Decoded> readRequest(int fd) {
    ReceiveBuffer buffer;
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

} // namespace

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
    stopping_ = true;
    ::shutdown(listenFd_, SHUT_RDWR); // wakes accept()
    {
        const std::lock_guard lock(mutex_);
        if (connectionFd_ >= 0) {
            ::shutdown(connectionFd_, SHUT_RDWR);
        }
    }
    thread_.join();
    ::close(listenFd_);
}

std::vector<FakeUsbmuxd::Request> FakeUsbmuxd::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void FakeUsbmuxd::serve() {
    while (!stopping_) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        {
            const std::lock_guard lock(mutex_);
            connectionFd_ = fd;
            if (stopping_) {
                ::shutdown(fd, SHUT_RDWR);
            }
        }
        if (const auto packet = readRequest(fd)) {
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
        {
            const std::lock_guard lock(mutex_);
            connectionFd_ = -1;
        }
        ::close(fd);
    }
}

} // namespace kestrelvane::testing
