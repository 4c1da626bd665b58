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

bool readExactly(int fd, std::uint8_t* out, std::size_t count) {
    while (count > 0) {
        const ssize_t n = ::read(fd, out, count);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        out += n;
        count -= static_cast<std::size_t>(n);
    }
    return true;
}

void writeAll(int fd, ByteView bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0) {
            return;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(n));
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

Bytes FakeUsbmuxd::packet(std::uint32_t tag, const PropertyList& body,
                          PropertyList::Format format) {
    return UsbmuxdProtocol::encode(tag, body.serialize(format));
}

PropertyList FakeUsbmuxd::result(std::int64_t number) {
    PropertyList body = PropertyList::dictionary();
    body.set("MessageType", PropertyList::string("Result"));
    body.set("Number", PropertyList::integer(number));
    return body;
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
        Bytes header(16);
        if (readExactly(fd, header.data(), header.size())) {
            const std::uint32_t length =
                std::uint32_t{header[0]} | (std::uint32_t{header[1]} << 8) |
                (std::uint32_t{header[2]} << 16) | (std::uint32_t{header[3]} << 24);
            Bytes body(length >= 16 ? length - 16 : 0);
            if (readExactly(fd, body.data(), body.size())) {
                const PropertyList plist = PropertyList::parse(body);
                Request request{std::uint32_t{header[12]} | (std::uint32_t{header[13]} << 8) |
                                    (std::uint32_t{header[14]} << 16) |
                                    (std::uint32_t{header[15]} << 24),
                                PropertyList::formatOf(body),
                                PropertyList::stringAt(plist.get(), "MessageType").value_or(""),
                                PropertyList::integerAt(plist.get(), "DeviceID"),
                                PropertyList::integerAt(plist.get(), "PortNumber"),
                                PropertyList::stringAt(plist.get(), "ClientVersionString"),
                                PropertyList::stringAt(plist.get(), "ProgName")};
                {
                    const std::lock_guard lock(mutex_);
                    requests_.push_back(request);
                }
                const Reply reply = script_(request);
                writeAll(fd, reply.bytes);
                std::uint8_t buffer[4096];
                // Nothing to say: hang up on the client at once.
                for (bool waiting = !reply.bytes.empty() || reply.tunnel; waiting;) {
                    const ssize_t n = ::read(fd, buffer, sizeof buffer);
                    if (n == 0) {
                        ++hangUps_;
                    }
                    if (n <= 0) {
                        waiting = false;
                    } else if (reply.tunnel) {
                        writeAll(fd, ByteView(buffer, static_cast<std::size_t>(n)));
                    }
                }
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
