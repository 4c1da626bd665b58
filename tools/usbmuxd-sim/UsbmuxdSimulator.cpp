#include "UsbmuxdSimulator.h"

#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace kestrelvane::sim {
namespace {

// usbmuxd's result codes.
constexpr std::int64_t resultOK = 0;
constexpr std::int64_t resultBadCommand = 1;
constexpr std::int64_t resultBadDevice = 2;
constexpr std::int64_t resultConnectionRefused = 3;

// Requests are small; anything bigger is not a client of ours.
constexpr std::uint32_t maxRequestBytes = 1024 * 1024;

[[noreturn]] void throwErrno(const std::string& call) {
    throw std::system_error(errno, std::generic_category(), call);
}

/// All `count` bytes, however many pieces they come in; false when the client
/// hangs up (or a stop signal cuts the wait short: every connection ends then).
bool readExactly(int fd, std::uint8_t* out, std::size_t count) {
    return ::recv(fd, out, count, MSG_WAITALL) == static_cast<ssize_t>(count);
}

/// A client that has gone away misses what it would have been told.
void writeIgnoringErrors(int fd, std::uint32_t tag, const PropertyList& body,
                         PropertyList::Format format) {
    try {
        FileDescriptor::sendAll(fd, UsbmuxdProtocol::encode(tag, body.serialize(format)));
    } catch (const std::system_error&) {
    }
}

/// Reads exactly one packet, so that nothing after a Connect request is
/// taken away from the tunnel.
std::optional<UsbmuxdProtocol::Decoded> readPacket(int fd) {
    Bytes packet(UsbmuxdProtocol::headerSize);
    if (!readExactly(fd, packet.data(), packet.size())) {
        return std::nullopt;
    }
    const std::uint32_t length = std::uint32_t{packet[0]} | (std::uint32_t{packet[1]} << 8) |
                                 (std::uint32_t{packet[2]} << 16) |
                                 (std::uint32_t{packet[3]} << 24);
    if (length < UsbmuxdProtocol::headerSize || length > maxRequestBytes) {
        return std::nullopt;
    }
    packet.resize(length);
    if (!readExactly(fd, packet.data() + UsbmuxdProtocol::headerSize,
                     length - UsbmuxdProtocol::headerSize)) {
        return std::nullopt;
    }
    ReceiveBuffer buffer(std::move(packet));
    return UsbmuxdProtocol::decode(buffer);
}

PropertyList result(std::int64_t number) {
    PropertyList body = PropertyList::dictionary();
    body.set("MessageType", PropertyList::string("Result"));
    body.set("Number", PropertyList::integer(number));
    return body;
}

PropertyList attachedMessage(std::int64_t id, const VirtualPhone& phone) {
    PropertyList properties = PropertyList::dictionary();
    properties.set("ConnectionSpeed", PropertyList::integer(480000000));
    properties.set("ConnectionType", PropertyList::string("USB"));
    properties.set("DeviceID", PropertyList::integer(id));
    properties.set("LocationID", PropertyList::integer(0x1000 + id));
    properties.set("ProductID", PropertyList::integer(phone.productID));
    properties.set("SerialNumber", PropertyList::string(phone.serial));
    PropertyList message = PropertyList::dictionary();
    message.set("DeviceID", PropertyList::integer(id));
    message.set("MessageType", PropertyList::string("Attached"));
    message.set("Properties", std::move(properties));
    return message;
}

} // namespace

struct UsbmuxdSimulator::Connection {
    explicit Connection(FileDescriptor socket) : fd(std::move(socket)) {}
    FileDescriptor fd;                   // closed under writeMutex, once served
    std::mutex writeMutex;               // keeps replies and events whole
    bool listening = false;              // guarded by the simulator's mutex
    PropertyList::Format listenFormat{}; // guarded by the simulator's mutex
    std::int64_t tunnelDevice = 0;       // guarded by the simulator's mutex
    std::atomic<bool> finished{false};   // its thread has nothing left to do
};

UsbmuxdSimulator::UsbmuxdSimulator(Options options) : options_(std::move(options)) {
    for (auto& phone : options_.phones) {
        attach(phone);
    }
}

UsbmuxdSimulator::~UsbmuxdSimulator() {
    if (listenFd_) {
        ::unlink(options_.socketPath.c_str());
    }
}

std::string UsbmuxdSimulator::listen() {
    if (!options_.socketPath.empty()) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (options_.socketPath.size() >= sizeof address.sun_path) {
            throw std::system_error(ENAMETOOLONG, std::generic_category(),
                                    "socket path " + options_.socketPath);
        }
        std::strncpy(address.sun_path, options_.socketPath.c_str(), sizeof address.sun_path - 1);
        listenFd_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!listenFd_) {
            throwErrno("socket");
        }
        ::unlink(options_.socketPath.c_str()); // a stale socket of an earlier run
        if (::bind(listenFd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
            0) {
            throwErrno("bind(" + options_.socketPath + ")");
        }
        if (::listen(listenFd_.get(), 64) != 0) {
            throwErrno("listen");
        }
        return options_.socketPath;
    }
    tcpListener_ =
        std::make_unique<TcpListener>(options_.tcpPort.value_or(0), TcpListener::Scope::loopback);
    return "127.0.0.1:" + std::to_string(tcpListener_->port());
}

void UsbmuxdSimulator::requestStop() noexcept {
    stopping_ = true;
    // Shutting the listening socket down fails a blocked accept4() with EINVAL.
    ::shutdown(listenFd_.get(), SHUT_RDWR);
    if (tcpListener_) {
        tcpListener_->stop(); // an atomic store and a write: fine in a signal handler
    }
}

FileDescriptor UsbmuxdSimulator::acceptNext() {
    if (tcpListener_) {
        return tcpListener_->acceptSocket();
    }
    while (!stopping_) {
        FileDescriptor fd(::accept4(listenFd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (fd) {
            return fd;
        }
        // A client that went away before we got to it: wait for the next.
    }
    return {};
}

void UsbmuxdSimulator::run() {
    std::exception_ptr failure; // reported once every thread is joined
    try {
        for (FileDescriptor fd = acceptNext(); fd; fd = acceptNext()) {
            auto connection = std::make_shared<Connection>(std::move(fd));
            {
                const std::lock_guard lock(mutex_);
                connections_.push_back(connection);
            }
            reapFinishedWorkers();
            workers_.push_back(
                {std::thread([this, connection] { serveConnection(connection); }), connection});
        }
    } catch (const std::system_error&) {
        failure = std::current_exception();
    }
    {
        // Ends every conversation and tunnel; each thread closes its own socket.
        const std::lock_guard lock(mutex_);
        for (const auto& connection : connections_) {
            ::shutdown(connection->fd.get(), SHUT_RDWR);
        }
    }
    for (auto& worker : workers_) {
        worker.thread.join();
    }
    workers_.clear();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void UsbmuxdSimulator::reapFinishedWorkers() {
    const auto finished =
        std::partition(workers_.begin(), workers_.end(),
                       [](const Worker& worker) { return !worker.connection->finished; });
    for (auto worker = finished; worker != workers_.end(); ++worker) {
        worker->thread.join();
    }
    workers_.erase(finished, workers_.end());
}

void UsbmuxdSimulator::serveConnection(const std::shared_ptr<Connection>& connection) {
    while (const auto packet = readPacket(connection->fd.get())) {
        try {
            const PropertyList request = PropertyList::parse(packet->body);
            if (!handle(connection, packet->tag, request, PropertyList::formatOf(packet->body))) {
                break;
            }
        } catch (const PropertyList::ParseError&) {
            // What usbmuxd does with a body it cannot read: hang up.
            break;
        }
    }
    {
        const std::lock_guard lock(mutex_);
        std::erase(connections_, connection);
    }
    {
        // Now, not when the last owner lets go: the client waits for the end.
        const std::lock_guard writing(connection->writeMutex);
        connection->fd.reset();
    }
    connection->finished = true;
}

void UsbmuxdSimulator::reply(Connection& connection, std::uint32_t tag, const PropertyList& body,
                             PropertyList::Format format) {
    const std::lock_guard lock(connection.writeMutex);
    writeIgnoringErrors(connection.fd.get(), tag, body, format);
}

bool UsbmuxdSimulator::handle(const std::shared_ptr<Connection>& connection, std::uint32_t tag,
                              const PropertyList& request, PropertyList::Format format) {
    const std::string type = PropertyList::stringAt(request.get(), "MessageType").value_or("");
    if (type == "ListDevices") {
        PropertyList list = PropertyList::array();
        {
            const std::lock_guard lock(mutex_);
            for (const auto& [id, phone] : devices_) {
                list.append(attachedMessage(id, phone));
            }
        }
        PropertyList body = PropertyList::dictionary();
        body.set("DeviceList", std::move(list));
        reply(*connection, tag, body, format);
        return true;
    }
    if (type == "Listen") {
        // Holding the write lock from before registration keeps every event
        // behind the list of devices already present.
        const std::lock_guard writing(connection->writeMutex);
        std::vector<PropertyList> present;
        {
            const std::lock_guard lock(mutex_);
            connection->listening = true;
            connection->listenFormat = format;
            for (const auto& [id, phone] : devices_) {
                present.push_back(attachedMessage(id, phone));
            }
        }
        writeIgnoringErrors(connection->fd.get(), tag, result(resultOK), format);
        for (const auto& message : present) {
            writeIgnoringErrors(connection->fd.get(), 0, message, format);
        }
        return true;
    }
    if (type == "ReadBUID") {
        PropertyList body = PropertyList::dictionary();
        body.set("BUID", PropertyList::string(options_.buid));
        reply(*connection, tag, body, format);
        return true;
    }
    if (type == "Connect") {
        const auto id = PropertyList::integerAt(request.get(), "DeviceID");
        const auto swapped = PropertyList::integerAt(request.get(), "PortNumber").value_or(0);
        const auto port =
            static_cast<std::uint16_t>(((swapped & 0xFF) << 8) | ((swapped >> 8) & 0xFF));
        std::optional<VirtualPhone> phone;
        {
            const std::lock_guard lock(mutex_);
            if (const auto found = devices_.find(id.value_or(0)); found != devices_.end()) {
                phone = found->second;
            }
        }
        if (!phone || phone->receiver == VirtualPhone::Receiver::vanished) {
            reply(*connection, tag, result(resultBadDevice), format);
            return true;
        }
        if (!phone->accepts(port)) {
            reply(*connection, tag, result(resultConnectionRefused), format);
            return true;
        }
        {
            const std::lock_guard lock(mutex_);
            connection->tunnelDevice = *id;
        }
        reply(*connection, tag, result(resultOK), format);
        say("tunnel to " + phone->serial + " port " + std::to_string(port));
        phone->serve(connection->fd.get(), port);
        return false;
    }
    if (type == "Attach") {
        const auto description = PropertyList::stringAt(request.get(), "Phone");
        PropertyList body = result(resultBadCommand);
        try {
            if (!description) {
                throw std::invalid_argument("Attach needs a \"Phone\" string");
            }
            const std::int64_t id = attach(VirtualPhone::parse(*description));
            body = result(resultOK);
            body.set("DeviceID", PropertyList::integer(id));
        } catch (const std::exception& error) { // a bad description, or no scratch folder
            body.set("String", PropertyList::string(error.what()));
        }
        reply(*connection, tag, body, format);
        return true;
    }
    if (type == "Detach") {
        const auto serial = PropertyList::stringAt(request.get(), "SerialNumber");
        const bool found = serial && detach(*serial);
        reply(*connection, tag, result(found ? resultOK : resultBadDevice), format);
        return true;
    }
    reply(*connection, tag, result(resultBadCommand), format);
    return true;
}

std::int64_t UsbmuxdSimulator::attach(VirtualPhone phone) {
    phone.versionOne = phone.versionOne || options_.versionOne;
    phone.capture = options_.capture;
    phone.switchOn([this](const std::string& line) { say(line); });
    std::int64_t id = 0;
    PropertyList event = PropertyList::dictionary();
    {
        const std::lock_guard lock(mutex_);
        id = nextDeviceID_++;
        event = attachedMessage(id, phone);
        devices_.emplace(id, std::move(phone));
    }
    broadcast(event);
    return id;
}

bool UsbmuxdSimulator::detach(const std::string& serial) {
    std::int64_t id = 0;
    {
        const std::lock_guard lock(mutex_);
        const auto found = std::find_if(devices_.begin(), devices_.end(), [&](const auto& entry) {
            return entry.second.serial == serial;
        });
        if (found == devices_.end()) {
            return false;
        }
        id = found->first;
        devices_.erase(found);
        // The cable is gone: so are its tunnels.
        for (const auto& connection : connections_) {
            if (connection->tunnelDevice == id) {
                ::shutdown(connection->fd.get(), SHUT_RDWR);
            }
        }
    }
    PropertyList event = PropertyList::dictionary();
    event.set("DeviceID", PropertyList::integer(id));
    event.set("MessageType", PropertyList::string("Detached"));
    broadcast(event);
    return true;
}

void UsbmuxdSimulator::broadcast(const PropertyList& event) {
    std::vector<std::pair<std::shared_ptr<Connection>, PropertyList::Format>> listeners;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& connection : connections_) {
            if (connection->listening) {
                listeners.emplace_back(connection, connection->listenFormat);
            }
        }
    }
    for (const auto& [connection, format] : listeners) {
        reply(*connection, 0, event, format);
    }
}

void UsbmuxdSimulator::say(const std::string& line) {
    const std::lock_guard lock(outputMutex_);
    std::cout << line << std::endl;
}

} // namespace kestrelvane::sim
