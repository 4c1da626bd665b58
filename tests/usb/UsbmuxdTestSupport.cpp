#include "UsbmuxdTestSupport.h"

#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kestrelvane::testing {

SimulatorProcess::SimulatorProcess(const std::vector<std::string>& args) {
    std::vector<std::string> argv{KV_USBMUXD_SIM, "--socket", socketPath()};
    argv.insert(argv.end(), args.begin(), args.end());
    process_ = std::make_unique<ChildProcess>(argv);
    // The first line says the socket takes connections.
    const auto line = process_->readLine();
    if (line != "listening on " + socketPath()) {
        throw std::runtime_error("simulator did not start: " + line.value_or("(no output)"));
    }
}

Conversation::Conversation(const std::string& socketPath) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    if (fd_ < 0 ||
        ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot connect to " + socketPath);
    }
}

Conversation::~Conversation() {
    ::close(fd_);
}

void Conversation::send(std::uint32_t tag, const PropertyList& body, PropertyList::Format format) {
    const Bytes packet = UsbmuxdProtocol::encode(tag, body.serialize(format));
    if (::send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(packet.size())) {
        throw std::runtime_error("request not written");
    }
}

Conversation::Packet Conversation::receive() {
    for (;;) {
        if (auto packet = UsbmuxdProtocol::decode(buffer_)) {
            return {packet->tag, PropertyList::formatOf(packet->body),
                    PropertyList::parse(packet->body)};
        }
        std::uint8_t chunk[4096];
        const ssize_t n = ::read(fd_, chunk, sizeof chunk);
        if (n <= 0) {
            throw std::runtime_error("conversation ended before a whole packet");
        }
        buffer_.append(ByteView(chunk, static_cast<std::size_t>(n)));
    }
}

RandomFiles writeRandomFiles(const std::filesystem::path& folder,
                             const std::vector<std::pair<std::string, std::size_t>>& files) {
    RandomFiles out;
    std::mt19937 random(2024);
    for (const auto& [name, size] : files) {
        std::string content(size, '\0');
        for (auto& c : content) {
            c = static_cast<char>(random());
        }
        out.paths.push_back(folder / name);
        std::ofstream(out.paths.back(), std::ios::binary) << content;
        out.contents[name] = std::move(content);
    }
    return out;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

} // namespace kestrelvane::testing
