#pragma once

#include "KestrelvaneKit/usb/PropertyList.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "support/TemporaryFolder.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrelvane::testing {

/// A dictionary: a key, its value, the next key, its value...
inline PropertyList dict() {
    return PropertyList::dictionary();
}
template <class... Rest> PropertyList dict(const char* key, PropertyList value, Rest&&... rest) {
    PropertyList dictionary = dict(std::forward<Rest>(rest)...);
    dictionary.set(key, std::move(value));
    return dictionary;
}

/// The next whole packet on socket `fd`, read on behind `buffer`; none when the socket ends first.
std::optional<UsbmuxdProtocol::Decoded> readPacket(int fd, ReceiveBuffer& buffer);

/// A scripted usbmuxd on a Unix socket in a temporary folder: for each
/// connection it reads one request, records it, writes what the script says,
/// and then waits (at most 10 s) for the client to hang up, or (when the reply
/// is empty) hangs up itself.
class FakeUsbmuxd {
public:
    struct Request {
        std::uint32_t tag = 0;
        PropertyList::Format format = PropertyList::Format::xml;
        std::string messageType{};
        std::optional<std::int64_t> deviceID{};
        std::optional<std::int64_t> portNumber{};
        bool operator==(const Request&) const = default;
    };
    using Reply = Bytes; ///< written as one block; none: hang up at once
    using Script = std::function<Reply(const Request&)>;

    explicit FakeUsbmuxd(Script script);
    ~FakeUsbmuxd();
    FakeUsbmuxd(const FakeUsbmuxd&) = delete;
    FakeUsbmuxd& operator=(const FakeUsbmuxd&) = delete;

    UsbmuxdClient::SocketAddress address() const { return {socketPath_, {}, 0}; }
    std::vector<Request> requests() const;
    /// Connections whose client hung up after the reply.
    int hangUps() const noexcept { return hangUps_.load(); }

private:
    void serve();

    TemporaryFolder folder_;
    std::string socketPath_;
    Script script_;
    int listenFd_ = -1;
    std::atomic<int> hangUps_{0};
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    std::thread thread_;
};

} // namespace kestrelvane::testing
