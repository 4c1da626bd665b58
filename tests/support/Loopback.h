#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrelvane::testing {

/// Whether this machine can open a socket on ::1 at all.
inline bool hasIPv6Loopback() {
    const int fd = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return bound;
}

} // namespace kestrelvane::testing
