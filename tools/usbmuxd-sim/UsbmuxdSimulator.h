#pragma once

#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/usb/PropertyList.h"
#include "VirtualPhone.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrelvane::sim {

/// A usbmuxd-compatible daemon whose devices are virtual phones. It answers
/// ListDevices, Connect, Listen and ReadBUID the way usbmuxd does (same keys,
/// the request's tag, the request's property-list format), and two requests of
/// its own that attach and detach phones while it runs.
///
/// One thread per client connection; a connect that succeeds turns that
/// thread into the phone's end of the tunnel. Threads of connections that have
/// ended are joined as new ones come, so a client that polls for ever keeps
/// only its live connections' threads.
class UsbmuxdSimulator {
public:
    struct Options {
        std::string socketPath{};               ///< listen on this Unix path...
        std::optional<std::uint16_t> tcpPort{}; ///< ...or on loopback at this port (0: any)
        std::vector<VirtualPhone> phones{};
        std::string buid = "4B455354-524C-5641-4E45-53494D554C41";
        /// Every phone speaks only the first version of the protocol.
        bool versionOne = false;
        /// Where every phone captures its tunnels; empty: nowhere.
        std::filesystem::path capture{};
    };

    explicit UsbmuxdSimulator(Options options);
    ~UsbmuxdSimulator();
    UsbmuxdSimulator(const UsbmuxdSimulator&) = delete;
    UsbmuxdSimulator& operator=(const UsbmuxdSimulator&) = delete;

    /// Binds and listens; returns where ("/path" or "127.0.0.1:PORT"; over TCP
    /// ::1 takes connections too). Throws std::system_error.
    std::string listen();
    /// Accepts and serves until requestStop(); then ends every connection and
    /// joins every thread before returning.
    void run();
    /// Async-signal-safe.
    void requestStop() noexcept;

private:
    struct Connection;
    struct Worker {
        std::thread thread;
        std::shared_ptr<Connection> connection;
    };

    /// The next client's socket; none once stopped.
    FileDescriptor acceptNext();
    void serveConnection(const std::shared_ptr<Connection>& connection);
    void reapFinishedWorkers();
    /// Handles one request; false when the connection is done with requests.
    bool handle(const std::shared_ptr<Connection>& connection, std::uint32_t tag,
                const PropertyList& request, PropertyList::Format format);
    void reply(Connection& connection, std::uint32_t tag, const PropertyList& body,
               PropertyList::Format format);
    std::int64_t attach(VirtualPhone phone);
    bool detach(const std::string& serial);
    void broadcast(const PropertyList& event);
    void say(const std::string& line);

    Options options_;
    FileDescriptor listenFd_;                  // the Unix socket
    std::unique_ptr<TcpListener> tcpListener_; // or this
    std::atomic<bool> stopping_{false};

    std::mutex mutex_; // guards everything below; no I/O while held but shutdown()
    std::int64_t nextDeviceID_ = 1;
    std::map<std::int64_t, VirtualPhone> devices_;
    std::vector<std::shared_ptr<Connection>> connections_;
    std::vector<Worker> workers_; // run()'s thread only
    std::mutex outputMutex_;
};

} // namespace kestrelvane::sim
