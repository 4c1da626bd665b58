#pragma once

#include "KestrelvaneKit/usb/PropertyList.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/wire/ReceiveBuffer.h"
#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrelvane::testing {

/// The simulator binary listening on a socket in a temporary folder, with the
/// phones of `args`; ready once constructed, stopped when destroyed.
class SimulatorProcess {
public:
    explicit SimulatorProcess(const std::vector<std::string>& args);

    std::string socketPath() const { return (folder_.path() / "usbmuxd").string(); }
    UsbmuxdClient::SocketAddress address() const { return {socketPath(), {}, 0}; }
    ChildProcess& process() { return *process_; }

private:
    TemporaryFolder folder_;
    std::unique_ptr<ChildProcess> process_;
};

/// A raw conversation on a usbmuxd socket, for requests the client does not make.
class Conversation {
public:
    struct Packet {
        std::uint32_t tag = 0;
        PropertyList::Format format = PropertyList::Format::xml;
        PropertyList body;
    };

    explicit Conversation(const std::string& socketPath);
    ~Conversation();
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;

    void send(std::uint32_t tag, const PropertyList& body,
              PropertyList::Format format = PropertyList::Format::xml);
    /// The next packet; throws when the socket ends first.
    Packet receive();

private:
    int fd_ = -1;
    ReceiveBuffer buffer_;
};

struct RandomFiles {
    std::vector<std::filesystem::path> paths;
    std::map<std::string, std::string> contents; ///< by file name
};
/// Files of the given names and sizes in `folder`, filled with seeded noise.
RandomFiles writeRandomFiles(const std::filesystem::path& folder,
                             const std::vector<std::pair<std::string, std::size_t>>& files);
std::string readFile(const std::filesystem::path& path);

} // namespace kestrelvane::testing
