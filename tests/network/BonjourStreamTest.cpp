// What is particular to TCP, over real sockets on loopback: connecting and its
// states, the socket options and idle timeouts. What every stream promises is
// in StreamContractTest.cpp.
#include "KestrelvaneKit/network/BonjourStream.h"

#include "KestrelvaneKit/network/TcpListener.h"
#include "support/CallOutcome.h"
#include "support/Eventually.h"
#include "support/SystemCallFault.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace kestrelvane {
namespace {

using testing::eventually;
using testing::outcomeOf;
using testing::startsWith;
using State = TcpConnection::State;

/// TCP_NODELAY and SO_KEEPALIVE of each IPv4 socket of this process
/// connected with `port` at either end.
std::vector<std::pair<int, int>> optionsOfConnectionsAt(std::uint16_t port) {
    std::vector<std::pair<int, int>> found;
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_in here{};
        sockaddr_in there{};
        socklen_t hereLength = sizeof here;
        socklen_t thereLength = sizeof there;
        int noDelay = 0;
        int keepAlive = 0;
        socklen_t size = sizeof(int);
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&here), &hereLength) == 0 &&
            here.sin_family == AF_INET &&
            ::getpeername(fd, reinterpret_cast<sockaddr*>(&there), &thereLength) == 0 &&
            (ntohs(here.sin_port) == port || ntohs(there.sin_port) == port) &&
            ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size) == 0 &&
            ::getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &keepAlive, &size) == 0) {
            found.emplace_back(noDelay, keepAlive);
        }
    }
    return found;
}

TEST(BonjourStream, ARefusedStartFailsALaterOneConnectsWithTheSocketOptionsAndTheIdleTimeoutSet) {
    const std::uint16_t port = TcpListener(0, TcpListener::Scope::loopback).port(); // let go
    auto connection = std::make_shared<TcpConnection>("127.0.0.1", port);
    BonjourStream stream(connection);
    EXPECT_PRED2(startsWith, outcomeOf([&] { stream.start(); }),
                 "errno 111: connect() failed (111)");
    EXPECT_EQ(connection->state(), State::failed);

    connection->setIdleTimeout(std::chrono::milliseconds(100)); // before the socket is there
    TcpListener listener(port, TcpListener::Scope::loopback);
    stream.start();
    BonjourStream server(listener.accept());
    server.start();
    // Both ends turn off Nagle's delay and turn on keep-alive probes.
    EXPECT_EQ(optionsOfConnectionsAt(port), (std::vector<std::pair<int, int>>{{1, 1}, {1, 1}}));
    stream.send(asBytes("again"));
    EXPECT_EQ(asText(server.receive(5)), "again");
    server.send(asBytes("x"));
    EXPECT_EQ(asText(stream.receive(1)), "x"); // bytes that come are no idleness
    // The one check against the clock: only a lower bound, as a silent peer
    // must make the call time out at some point.
    EXPECT_PRED2(startsWith, outcomeOf([&] { stream.receive(1); }), "errno 110: recv() timed out");
}

TEST(TcpConnection, WaitsOutAHostUnreachableForNowThenReportsReadyAndCancelledInOrder) {
    using testing::SystemCallFault;
    TcpListener listener(0, TcpListener::Scope::loopback);
    // Every state reported; declared first, as the connection's thread may still report.
    std::mutex mutex;
    std::vector<State> states;
    TcpConnection connection("127.0.0.1", listener.port());
    connection.setStateHandler([&](State state, const TcpConnection::Error&) {
        const std::lock_guard lock(mutex);
        states.push_back(state);
    });
    EXPECT_EQ(connection.state(), State::setup);
    {
        // The first handshake's outcome reads as EHOSTUNREACH.
        const int before = SystemCallFault::failures(SystemCallFault::Call::getsockopt);
        const SystemCallFault unreachable(SystemCallFault::Call::getsockopt, EHOSTUNREACH, 1);
        connection.start();
        ASSERT_TRUE(eventually(
            [&] { return SystemCallFault::failures(SystemCallFault::Call::getsockopt) > before; }));
    }
    ASSERT_TRUE(eventually([&] { return connection.state() == State::ready; }));
    connection.start(); // already ready: nothing changes
    connection.cancel();
    connection.cancel();
    connection.start(); // a cancelled connection says so again
    // The connecting thread may still be delivering "ready" and then delivers
    // the later reports itself, after cancel() and start() have returned.
    const std::vector expected{State::preparing, State::waiting,   State::preparing,
                               State::ready,     State::cancelled, State::cancelled};
    eventually([&] {
        const std::lock_guard lock(mutex);
        return states.size() >= expected.size();
    });
    const std::lock_guard lock(mutex);
    EXPECT_EQ(states, expected);
}

} // namespace
} // namespace kestrelvane
