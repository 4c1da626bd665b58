#include "support/SimulatorProcess.h"

#include "support/Eventually.h"
#include "support/FakeUsbmuxd.h"

#include <algorithm>
#include <cstring>
#include <linux/sockios.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kestrelvane::testing {

std::string cliProgram() {
    return KV_CLI;
}

std::string simulatorProgram() {
    return KV_USBMUXD_SIM;
}

SimulatorProcess::SimulatorProcess(const std::vector<std::string>& phones,
                                   const std::vector<std::string>& extra,
                                   const ChildProcess::Environment& environment) {
    std::vector<std::string> argv{simulatorProgram(), "--socket", socketPath()};
    for (const auto& phone : phones) {
        argv.insert(argv.end(), {"--phone", phone});
    }
    argv.insert(argv.end(), extra.begin(), extra.end());
    // Its phones keep partial files in a cache of their own, not the user's.
    ChildProcess::Environment ownEnvironment = environment;
    ownEnvironment.emplace_back("XDG_CACHE_HOME", (folder_.path() / "cache").string());
    process_ = std::make_unique<ChildProcess>(argv, ownEnvironment);
    // The first line says the socket takes connections.
    const auto line = process_->readLine();
    if (line != "listening on " + socketPath()) {
        throw std::runtime_error("simulator did not start: " + line.value_or("(no output)"));
    }
}

std::optional<std::int64_t> SimulatorProcess::request(const PropertyList& body) const {
    try {
        Conversation conversation(socketPath());
        conversation.send(1, body);
        return PropertyList::integerAt(conversation.receive().body.get(), "Number");
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

bool SimulatorProcess::detach(const std::string& serial) const {
    return request(dict("MessageType", PropertyList::string("Detach"), "SerialNumber",
                        PropertyList::string(serial))) == 0;
}

int SimulatorProcess::tunnelsOpened() {
    process_->terminate();
    int tunnels = 0;
    while (auto line = process_->readLine()) {
        tunnels += line->rfind("tunnel to ", 0) == 0 ? 1 : 0;
    }
    return tunnels;
}

Conversation::Conversation(const std::string& socketPath) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    if (fd_ < 0 ||
        ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd_); // -1 when there was no socket: nothing happens
        throw std::runtime_error("cannot connect to " + socketPath);
    }
}

Conversation::~Conversation() {
    ::close(fd_);
}

void Conversation::send(std::uint32_t tag, const PropertyList& body, PropertyList::Format format,
                        std::size_t piece) {
    const Bytes packet = UsbmuxdProtocol::encode(tag, body.serialize(format));
    const auto write = [&](std::size_t from, std::size_t to) {
        if (::send(fd_, packet.data() + from, to - from, MSG_NOSIGNAL) !=
            static_cast<ssize_t>(to - from)) {
            throw std::runtime_error("request not written");
        }
    };
    piece = std::min(piece, packet.size());
    write(0, piece);
    // A Unix socket's output queue is empty once the other end has read it all.
    if (piece > 0 && !eventually([&] {
            int queued = -1;
            return ::ioctl(fd_, SIOCOUTQ, &queued) == 0 && queued == 0;
        })) {
        throw std::runtime_error("the first piece of the request was never read");
    }
    write(piece, packet.size());
}

Conversation::Packet Conversation::receive() {
    const auto packet = readPacket(fd_, buffer_);
    if (!packet) {
        throw std::runtime_error("conversation ended before a whole packet");
    }
    return {packet->tag, PropertyList::formatOf(packet->body), PropertyList::parse(packet->body)};
}

} // namespace kestrelvane::testing
