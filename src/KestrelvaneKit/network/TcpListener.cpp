#include "KestrelvaneKit/network/TcpListener.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace kestrelvane {
namespace {

/// A socket listening at `address`, or none with `error` set.
FileDescriptor listenAt(const sockaddr* address, socklen_t length, int& error) {
    FileDescriptor fd(::socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        error = errno;
        return {};
    }
    const int on = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (address->sa_family == AF_INET6) {
        // Each family has its own socket, so IPv4 never arrives here mapped.
        ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    if (::bind(fd.get(), address, length) != 0 || ::listen(fd.get(), SOMAXCONN) != 0) {
        error = errno;
        return {};
    }
    return fd;
}

/// A listening socket of one family, or none with `error` set.
FileDescriptor listenOn(int family, std::uint16_t port, TcpListener::Scope scope, int& error) {
    sockaddr_storage storage{};
    socklen_t length = 0;
    if (family == AF_INET6) {
        auto& address = reinterpret_cast<sockaddr_in6&>(storage);
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = scope == TcpListener::Scope::loopback ? in6addr_loopback : in6addr_any;
        length = sizeof address;
    } else {
        auto& address = reinterpret_cast<sockaddr_in&>(storage);
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr =
            htonl(scope == TcpListener::Scope::loopback ? INADDR_LOOPBACK : INADDR_ANY);
        length = sizeof address;
    }
    return listenAt(reinterpret_cast<const sockaddr*>(&storage), length, error);
}

std::uint16_t boundPort(const FileDescriptor& fd) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&storage), &length);
    return storage.ss_family == AF_INET6
               ? ntohs(reinterpret_cast<const sockaddr_in6&>(storage).sin6_port)
               : ntohs(reinterpret_cast<const sockaddr_in&>(storage).sin_port);
}

bool familyIsMissing(int error) {
    return error == EAFNOSUPPORT || error == EADDRNOTAVAIL || error == EPROTONOSUPPORT;
}

} // namespace

TcpListener::TcpListener(std::uint16_t port, Scope scope)
    : wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wakeFd_) {
        throw callError("eventfd()", errno);
    }
    int lastError = 0;
    // With port 0 the IPv6 socket picks a port that IPv4 may already use
    // elsewhere; a few fresh picks settle it.
    for (int attempt = 0; attempt < 16; ++attempt) {
        if (bindAll(port, scope, lastError) || port != 0 || lastError != EADDRINUSE) {
            break;
        }
    }
    if (sockets_.empty()) {
        throw callError("bind()", lastError);
    }
}

TcpListener::TcpListener(std::uint16_t port, const std::string& address)
    : wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wakeFd_) {
        throw callError("eventfd()", errno);
    }
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE; // never a name lookup
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        throw std::invalid_argument("'" + address + "' is not an IPv4 or IPv6 address");
    }
    int error = 0;
    FileDescriptor fd = listenAt(found->ai_addr, found->ai_addrlen, error);
    ::freeaddrinfo(found);
    if (!fd) {
        throw callError("bind()", error);
    }
    port_ = boundPort(fd);
    sockets_.push_back(std::move(fd));
}

bool TcpListener::bindAll(std::uint16_t port, Scope scope, int& lastError) {
    sockets_.clear();
    std::uint16_t chosen = port;
    for (int family : {AF_INET6, AF_INET}) {
        int error = 0;
        FileDescriptor fd = listenOn(family, chosen, scope, error);
        if (!fd) {
            lastError = error;
            if (familyIsMissing(error)) {
                continue;
            }
            sockets_.clear();
            return false;
        }
        chosen = boundPort(fd);
        sockets_.push_back(std::move(fd));
    }
    port_ = chosen;
    return !sockets_.empty();
}

void TcpListener::stop() noexcept {
    stopped_ = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wakeFd_.get(), &one, sizeof one);
}

std::shared_ptr<TcpConnection> TcpListener::accept() {
    FileDescriptor fd = acceptSocket();
    return fd ? std::make_shared<TcpConnection>(std::move(fd)) : nullptr;
}

FileDescriptor TcpListener::acceptSocket() {
    std::lock_guard accepting(acceptMutex_);
    std::vector<pollfd> waits;
    for (const auto& fd : sockets_) {
        waits.push_back({fd.get(), POLLIN, 0});
    }
    waits.push_back({wakeFd_.get(), POLLIN, 0});
    while (!stopped_) {
        for (auto& wait : waits) {
            wait.revents = 0;
        }
        if (::poll(waits.data(), waits.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw callError("poll()", errno);
        }
        for (std::size_t i = 0; i + 1 < waits.size() && !stopped_; ++i) {
            if (waits[i].revents == 0) {
                continue;
            }
            FileDescriptor fd(::accept4(waits[i].fd, nullptr, nullptr, SOCK_CLOEXEC));
            if (fd) {
                return fd;
            }
            const int code = errno;
            // Gone before it was taken, or taken by nobody yet: look again.
            if (code == EAGAIN || code == EWOULDBLOCK || code == ECONNABORTED || code == EINTR ||
                code == EPROTO) {
                continue;
            }
            if (code == EMFILE || code == ENFILE || code == ENOBUFS || code == ENOMEM) {
                // Out of descriptors or memory for now: the connection waits in
                // the backlog until a session ends and frees some. Pause rather
                // than spin on a queue that stays readable; stop() still wakes.
                pollfd wake{wakeFd_.get(), POLLIN, 0};
                ::poll(&wake, 1, static_cast<int>(resourceRetryInterval.count()));
                break;
            }
            throw callError("accept()", code);
        }
    }
    return {};
}

} // namespace kestrelvane
