#include "KestrelvaneKit/usb/UsbmuxdClient.h"

#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kestrelvane {
namespace {

std::string errnoText(int error) {
    return "(" + std::to_string(error) + ")";
}

std::optional<std::uint16_t> parsePort(const std::string& text) {
    if (text.empty() || text.size() > 5) {
        return std::nullopt;
    }
    long value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
    }
    if (value <= 0 || value > 65535) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(value);
}

FileDescriptor connectUnix(const std::string& path) {
    FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        throw UsbmuxdError::connectFailed(errno, "socket() failed " + errnoText(errno));
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // At most 103 bytes, so the path stays zero-terminated.
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 5);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        throw UsbmuxdError::connectFailed(error,
                                          "connect(" + path + ") failed " + errnoText(error));
    }
    return fd;
}

FileDescriptor connectTcp(const std::string& host, std::uint16_t port,
                          const std::string& described) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    if (const int status = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
        status != 0) {
        throw UsbmuxdError::connectFailed(status, "getaddrinfo(" + host + ") failed (" +
                                                      ::gai_strerror(status) + ")");
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, ::freeaddrinfo);
    int lastError = 0;
    for (const addrinfo* candidate = found; candidate != nullptr; candidate = candidate->ai_next) {
        FileDescriptor fd(::socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, 0));
        if (!fd) {
            throw UsbmuxdError::connectFailed(errno, "socket() failed " + errnoText(errno));
        }
        if (::connect(fd.get(), candidate->ai_addr, candidate->ai_addrlen) == 0) {
            // Requests and the tunnel's small frames must not wait on Nagle.
            const int one = 1;
            ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            return fd;
        }
        lastError = errno;
    }
    throw UsbmuxdError::connectFailed(lastError,
                                      "connect(" + described + ") failed " + errnoText(lastError));
}

PropertyList request(const char* messageType) {
    PropertyList plist = PropertyList::dictionary();
    plist.set("MessageType", PropertyList::string(messageType));
    plist.set("ClientVersionString", PropertyList::string(UsbmuxdClient::clientName));
    plist.set("ProgName", PropertyList::string(UsbmuxdClient::clientName));
    return plist;
}

} // namespace

std::string UsbmuxdClient::SocketAddress::describe() const {
    if (isUnix()) {
        return path;
    }
    return host.find(':') != std::string::npos ? "[" + host + "]:" + std::to_string(port)
                                               : host + ":" + std::to_string(port);
}

UsbmuxdClient::SocketAddress
UsbmuxdClient::SocketAddress::parse(const std::optional<std::string>& text) {
    const SocketAddress fallback{defaultSocketPath, {}, 0};
    if (!text) {
        return fallback;
    }
    if (text->starts_with("UNIX:")) {
        return text->size() > 5 ? SocketAddress{text->substr(5), {}, 0} : fallback;
    }
    const auto colon = text->rfind(':');
    if (colon == std::string::npos) {
        return fallback;
    }
    const auto port = parsePort(text->substr(colon + 1));
    if (!port) {
        return fallback;
    }
    std::string host = text->substr(0, colon);
    if (host.starts_with("[")) {
        host.erase(0, 1);
        if (const auto close = host.rfind(']'); close != std::string::npos) {
            host.erase(close);
        }
    }
    if (host.empty()) {
        return fallback;
    }
    return SocketAddress{{}, std::move(host), *port};
}

UsbmuxdClient::SocketAddress UsbmuxdClient::SocketAddress::fromEnvironment() {
    const char* value = std::getenv("USBMUXD_SOCKET_ADDRESS");
    return parse(value != nullptr ? std::optional<std::string>(value) : std::nullopt);
}

UsbmuxdClient::UsbmuxdClient() : UsbmuxdClient(SocketAddress::fromEnvironment()) {
}

UsbmuxdClient::UsbmuxdClient(SocketAddress address, RequestFormat requestFormat)
    : address_(std::move(address)), requestFormat_(requestFormat) {
}

std::uint32_t UsbmuxdClient::nextTag() const {
    const std::lock_guard lock(mutex_);
    return nextTag_;
}

std::uint32_t UsbmuxdClient::takeTag() {
    return nextTag_++; // unsigned: wraps at the top of the range
}

FileDescriptor UsbmuxdClient::openSocket() const {
    return address_.isUnix() ? connectUnix(address_.path)
                             : connectTcp(address_.host, address_.port, address_.describe());
}

void UsbmuxdClient::send(int fd, std::uint32_t tag, const PropertyList& plist) const {
    const Bytes body =
        plist.serialize(requestFormat_ == RequestFormat::binary ? PropertyList::Format::binary
                                                                : PropertyList::Format::xml);
    try {
        FileDescriptor::sendAll(fd, UsbmuxdProtocol::encode(tag, body));
    } catch (const std::system_error& error) {
        throw UsbmuxdError::socketError("write failed " + errnoText(error.code().value()));
    }
}

PropertyList UsbmuxdClient::readResponse(int fd) const {
    ReceiveBuffer buffer;
    std::uint8_t chunk[readChunk];
    std::optional<UsbmuxdProtocol::Decoded> packet;
    while (!(packet = UsbmuxdProtocol::decode(buffer))) {
        if (buffer.size() >= 4) {
            const ByteView front = buffer.view();
            const std::size_t declared = std::size_t{front[0]} | (std::size_t{front[1]} << 8) |
                                         (std::size_t{front[2]} << 16) |
                                         (std::size_t{front[3]} << 24);
            if (declared > maxReplyBytes) {
                throw UsbmuxdError::malformed("reply of " + std::to_string(declared) +
                                              " bytes is too large");
            }
        }
        errno = 0; // an orderly close leaves errno alone; report 0 then
        const ssize_t count = ::read(fd, chunk, sizeof chunk);
        if (count <= 0) {
            throw UsbmuxdError::socketError("read returned " + std::to_string(count) + " " +
                                            errnoText(errno));
        }
        buffer.append(ByteView(chunk, static_cast<std::size_t>(count)));
    }
    PropertyList reply = PropertyList::parse(packet->body);
    if (!reply.isDictionary()) {
        throw UsbmuxdError::malformed("response body not a dict");
    }
    return reply;
}

std::vector<UsbmuxdClient::Device> UsbmuxdClient::parseDevices(plist_t reply) {
    std::vector<Device> devices;
    plist_t list = PropertyList::arrayAt(reply, "DeviceList");
    if (list == nullptr) {
        return devices;
    }
    const std::uint32_t count = plist_array_get_size(list);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (plist_get_node_type(plist_array_get_item(list, i)) != PLIST_DICT) {
            return {};
        }
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        plist_t entry = plist_array_get_item(list, i);
        const auto id = PropertyList::integerAt(entry, "DeviceID");
        plist_t properties = PropertyList::dictionaryAt(entry, "Properties");
        // A phone a daemon reaches over the network (usbmuxd2 and netmuxd list
        // Wi-Fi-synced ones) is not on the cable: the protocol would cross
        // the network in clear.
        if (!id || properties == nullptr ||
            PropertyList::stringAt(properties, "ConnectionType").value_or("USB") != "USB") {
            continue;
        }
        devices.push_back(Device{*id,
                                 PropertyList::stringAt(properties, "SerialNumber").value_or(""),
                                 PropertyList::integerAt(properties, "ProductID").value_or(0)});
    }
    return devices;
}

std::vector<UsbmuxdClient::Device> UsbmuxdClient::listDevices() {
    const std::lock_guard lock(mutex_);
    const FileDescriptor socket = openSocket();
    send(socket.get(), takeTag(), request("ListDevices"));
    return parseDevices(readResponse(socket.get()).get());
}

UsbmuxdClient::ConnectResult UsbmuxdClient::connect(std::int64_t deviceID, std::uint16_t port) {
    const std::lock_guard lock(mutex_);
    FileDescriptor socket = openSocket();
    PropertyList plist = request("Connect");
    plist.set("DeviceID", PropertyList::integer(deviceID));
    // The daemon wants the port in network byte order, read as a host integer.
    const auto swapped = static_cast<std::uint16_t>((port >> 8) | (port << 8));
    plist.set("PortNumber", PropertyList::integer(swapped));
    send(socket.get(), takeTag(), plist);
    const PropertyList reply = readResponse(socket.get());

    const auto number = PropertyList::integerAt(reply.get(), "Number");
    if (!number) {
        return ConnectResult::otherError(-1, "no Number in response");
    }
    switch (*number) {
    case 0:
        return ConnectResult::tunneled(std::move(socket));
    case 2:
        return ConnectResult::badDevice();
    case 3:
        return ConnectResult::connectionRefused();
    default:
        return ConnectResult::otherError(*number,
                                         PropertyList::stringAt(reply.get(), "String")
                                             .value_or("usbmuxd error " + std::to_string(*number)));
    }
}

} // namespace kestrelvane
