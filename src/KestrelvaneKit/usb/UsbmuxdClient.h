#pragma once

#include "KestrelvaneKit/usb/PropertyList.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrelvane {

/// Talks to the host's usbmuxd daemon: lists the attached phones and connects
/// a TCP port on one of them, after which the request's socket is a raw tunnel
/// to that port. Every request opens its own control socket and closes it
/// again unless it became a tunnel. Calls are serialised; any thread may call.
class UsbmuxdClient {
public:
    struct Device {
        std::int64_t id = 0;        ///< "DeviceID"
        std::string serial{};       ///< "SerialNumber", empty when absent
        std::int64_t productID = 0; ///< "ProductID", 0 when absent
        friend bool operator==(const Device&, const Device&) = default;
    };

    /// What a connect to a phone's port gave.
    struct ConnectResult {
        enum class Outcome { listening, notListening, detached, failed };

        /// `tunnel` now reaches the phone's port.
        static ConnectResult tunneled(FileDescriptor tunnel) {
            return {Outcome::listening, std::move(tunnel)};
        }
        /// Nothing on the phone accepted the port (result 3).
        static ConnectResult connectionRefused() { return {Outcome::notListening}; }
        /// The device number is not, or no longer, known (result 2).
        static ConnectResult badDevice() { return {Outcome::detached}; }
        static ConnectResult otherError(std::int64_t code, std::string message) {
            return {Outcome::failed, {}, code, std::move(message)};
        }

        Outcome outcome = Outcome::failed;
        FileDescriptor tunnel{}; ///< the open tunnel, for listening
        std::int64_t code = 0;   ///< usbmuxd's result code, for failed
        std::string message{};   ///< usbmuxd's words, for failed
        friend bool operator==(const ConnectResult& a, const ConnectResult& b) {
            return a.outcome == b.outcome && a.tunnel.get() == b.tunnel.get() && a.code == b.code &&
                   a.message == b.message;
        }
    };

    /// Where the daemon listens: a Unix socket path or a TCP host and port.
    struct SocketAddress {
        std::string path{}; ///< set for a Unix socket
        std::string host{}; ///< set, with `port`, for TCP
        std::uint16_t port = 0;

        bool isUnix() const noexcept { return host.empty(); }
        /// The path, or host:port, as error messages name it.
        std::string describe() const;

        /// Reads an address the way libusbmuxd reads USBMUXD_SOCKET_ADDRESS:
        /// "UNIX:/path", "host:port" or "[v6]:port"; anything else is the default.
        static SocketAddress parse(const std::optional<std::string>& text);
        static SocketAddress fromEnvironment();
        friend bool operator==(const SocketAddress&, const SocketAddress&) = default;
    };

    /// The Linux daemon parses XML requests only; Apple's reads binary ones.
    enum class RequestFormat { xml, binary };
#ifdef __APPLE__
    static constexpr RequestFormat platformRequestFormat = RequestFormat::binary;
#else
    static constexpr RequestFormat platformRequestFormat = RequestFormat::xml;
#endif

    static constexpr const char* defaultSocketPath = "/var/run/usbmuxd";
    static constexpr const char* clientName = "Kestrelvane";
    /// How much of a reply one read takes.
    static constexpr std::size_t readChunk = 4096;
    /// A reply declaring more than this is refused before it is buffered.
    static constexpr std::size_t maxReplyBytes = 16 * 1024 * 1024;

    /// A client of the daemon named by USBMUXD_SOCKET_ADDRESS, else the default.
    UsbmuxdClient();
    explicit UsbmuxdClient(SocketAddress address,
                           RequestFormat requestFormat = platformRequestFormat);

    /// The attached devices, in the order the daemon lists them. Every request
    /// throws UsbmuxdError: connectFailed when the daemon cannot be reached,
    /// socketError when it hangs up or a read or write fails, malformed when it
    /// answers something no daemon sends.
    std::vector<Device> listDevices();
    /// Asks the daemon to connect `port` (host order) on device `deviceID`.
    /// Throws only when the conversation with the daemon fails; every answer
    /// it gives is a result.
    ConnectResult connect(std::int64_t deviceID, std::uint16_t port);

    /// The devices of a ListDevices reply; entries without an integer
    /// "DeviceID" or a "Properties" dictionary are skipped.
    static std::vector<Device> parseDevices(plist_t reply);

    /// The tag the next request will carry.
    std::uint32_t nextTag() const;
    const SocketAddress& address() const noexcept {
        return address_;
    }

private:
    FileDescriptor openSocket() const;
    std::uint32_t takeTag();
    void send(int fd, std::uint32_t tag, const PropertyList& plist) const;
    PropertyList readResponse(int fd) const;

    const SocketAddress address_;
    const RequestFormat requestFormat_;
    mutable std::mutex mutex_; // one conversation at a time; guards nextTag_
    std::uint32_t nextTag_ = 1;
};

} // namespace kestrelvane
