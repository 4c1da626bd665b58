#pragma once

#include "KestrelvaneKit/usb/PropertyList.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/wire/ReceiveBuffer.h"
#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvane::testing {

/// Where the build put the programs that tests run as a user would.
std::string cliProgram();
std::string simulatorProgram();

/// The usbmuxd simulator run as a program, listening on a socket in a folder
/// of its own, with one virtual phone per entry of `phones` ("SERIAL,PRODUCT,
/// RECEIVER", as its --phone takes them) and `extra` arguments after them,
/// `environment` added to its own (XDG_CACHE_HOME is a folder of its own).
/// Ready once constructed (throws when it does not start); ended when destroyed.
class SimulatorProcess {
public:
    explicit SimulatorProcess(const std::vector<std::string>& phones,
                              const std::vector<std::string>& extra = {},
                              const ChildProcess::Environment& environment = {});

    std::string socketPath() const { return (folder_.path() / "usbmuxd").string(); }
    UsbmuxdClient::SocketAddress address() const { return {socketPath(), {}, 0}; }
    /// What points the tool and libusbmuxd's programs at this simulator.
    ChildProcess::Environment environment() const {
        return {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + socketPath()}};
    }
    ChildProcess& process() { return *process_; }

    /// Sends one request of the simulator's own and returns its reply's "Number".
    std::optional<std::int64_t> request(const PropertyList& body) const;
    /// Unplugs the phone of that serial; true when the simulator had it.
    bool detach(const std::string& serial) const;
    /// Ends the simulator and counts the tunnels it opened over its whole run.
    int tunnelsOpened();

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

    /// Sends a request; with `piece`, its first `piece` bytes alone, and the
    /// rest once the other end has read them, so it must read in pieces.
    void send(std::uint32_t tag, const PropertyList& body,
              PropertyList::Format format = PropertyList::Format::xml, std::size_t piece = 0);
    /// The next packet; throws when the socket ends first.
    Packet receive();

private:
    int fd_ = -1;
    ReceiveBuffer buffer_;
};

} // namespace kestrelvane::testing
