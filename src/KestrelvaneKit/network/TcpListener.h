#pragma once

#include "KestrelvaneKit/network/TcpConnection.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrelvane {

/// Accepts TCP connections on one port, over IPv4 and IPv6, each as a
/// TcpConnection that is ready as soon as it is started.
///
/// accept() blocks until a connection comes or stop() is called from another
/// thread; after stop() it returns nullptr at once, so a serving loop ends
/// without a thread left blocked. Destroy the listener only after the thread
/// in accept() has returned.
class TcpListener {
public:
    enum class Scope {
        anyAddress, ///< every interface (0.0.0.0 and ::)
        loopback,   ///< this machine only (127.0.0.1 and ::1)
    };

    /// Binds and listens. `port` 0 takes any free port (the same one for both
    /// families); port() tells which. A family the machine lacks is left out;
    /// throws std::system_error ("bind() failed (errno)") when neither works.
    explicit TcpListener(std::uint16_t port = 0, Scope scope = Scope::anyAddress);
    /// Binds and listens on one address of this machine only, an IPv4 or IPv6
    /// literal ("192.168.1.20", "fe80::1%eth0"). Throws std::invalid_argument
    /// when `address` is no such literal, std::system_error ("bind() failed
    /// (errno)", EADDRNOTAVAIL when no interface has the address) otherwise.
    TcpListener(std::uint16_t port, const std::string& address);
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;

    std::uint16_t port() const noexcept { return port_; }

    /// How long accept() pauses before trying again when the process is out
    /// of descriptors (or the system out of buffers).
    static constexpr std::chrono::milliseconds resourceRetryInterval{100};

    /// The next connection, not yet started; nullptr once stopped. Running out
    /// of descriptors makes it wait until one is free, not fail. Throws
    /// std::system_error when accepting fails for another reason than that or
    /// a connection that was aborted before it could be taken.
    std::shared_ptr<TcpConnection> accept();
    /// As accept(), but the bare connected socket, which the caller then owns;
    /// empty once stopped. For servers that speak on descriptors of their own.
    FileDescriptor acceptSocket();
    /// Wakes accept() and makes every later call return nullptr. Any thread, any time.
    void stop() noexcept;

private:
    bool bindAll(std::uint16_t port, Scope scope, int& lastError);

    std::vector<FileDescriptor> sockets_;
    std::uint16_t port_ = 0;
    FileDescriptor wakeFd_;
    std::atomic<bool> stopped_{false};
    std::mutex acceptMutex_; // one accepting thread at a time
};

} // namespace kestrelvane
