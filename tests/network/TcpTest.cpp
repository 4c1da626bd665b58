// What is particular to TCP, over real sockets on loopback: listening on every
// address, connecting and its states, the socket options, idle timeouts and a
// process out of descriptors. What every stream promises is in
// StreamContractTest.cpp.
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "support/BlockedThread.h"
#include "support/CallOutcome.h"
#include "support/Eventually.h"
#include "support/Loopback.h"
#include "support/SystemCallFault.h"

#include <gtest/gtest.h>

#include <future>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace kestrelvane {
namespace {

using testing::eventually;
using testing::outcomeOf;
using testing::startsWith;
using testing::SystemCallFault;
using Call = SystemCallFault::Call;
using State = TcpConnection::State;

/// TCP_NODELAY and SO_KEEPALIVE of each IPv4 socket of this process
/// connected with `port` at either end.
std::vector<std::pair<int, int>> optionsOfConnectionsAt(std::uint16_t port) {
    std::vector<std::pair<int, int>> found;
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_in ends[2]{}; // here, there
        socklen_t length = sizeof ends[0];
        int options[2] = {0, 0};
        socklen_t size = sizeof(int);
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&ends[0]), &length) == 0 &&
            ends[0].sin_family == AF_INET &&
            ::getpeername(fd, reinterpret_cast<sockaddr*>(&ends[1]), &length) == 0 &&
            (ntohs(ends[0].sin_port) == port || ntohs(ends[1].sin_port) == port) &&
            ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &options[0], &size) == 0 &&
            ::getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &options[1], &size) == 0) {
            found.emplace_back(options[0], options[1]);
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
        const int before = SystemCallFault::failures(Call::getsockopt);
        const SystemCallFault unreachable(Call::getsockopt, EHOSTUNREACH, 1);
        connection.start();
        ASSERT_TRUE(
            eventually([&] { return SystemCallFault::failures(Call::getsockopt) > before; }));
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

// Every address: each family has a socket of its own on the one port, which
// no other listener can then take. From each host a word goes over, and the
// accepted side reads it and then the end.
TEST(TcpListener, AcceptsIPv4NamesAndIPv6OnTheOnePortItReportsWhichIsThenInUse) {
    TcpListener listener;
    ASSERT_NE(listener.port(), 0);
    std::vector<std::string> hosts{"127.0.0.1", "localhost"};
    if (testing::hasIPv6Loopback()) {
        hosts.push_back("::1");
    }
    for (const auto& host : hosts) {
        TcpConnection client(host, listener.port());
        client.start();
        auto accepted = listener.accept();
        ASSERT_NE(accepted, nullptr) << host;
        accepted->start();
        // The accept can come before the connecting side has seen its handshake end.
        ASSERT_TRUE(eventually([&] { return client.state() == TcpConnection::State::ready; }))
            << host;
        client.send(asBytes(host));
        Bytes received(100);
        received.resize(accepted->receive(received));
        EXPECT_EQ(asText(received), host);
        client.cancel();
        EXPECT_EQ(accepted->receive(received), 0u) << host;
    }
    EXPECT_PRED2(startsWith,
                 outcomeOf([&] { TcpListener(listener.port(), TcpListener::Scope::loopback); }),
                 "errno 98: bind() failed (98)");
    if (!testing::hasIPv6Loopback()) {
        GTEST_SKIP() << "this machine has no ::1: IPv6 was not tried";
    }
}

// Out of descriptors (accept4() failing with EMFILE), a connection waits in
// the backlog: accept() waits and tries again instead of failing, and takes it
// once a descriptor is free. stop() still ends a waiting accept.
TEST(TcpListener, RunningOutOfDescriptorsMakesAcceptWaitNotFailAndStopEndsTheWait) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    TcpConnection client("127.0.0.1", listener.port());
    client.start();
    std::future<std::shared_ptr<TcpConnection>> accepting;
    {
        const int before = SystemCallFault::failures(Call::accept4);
        const SystemCallFault noDescriptor(Call::accept4, EMFILE);
        accepting = std::async(std::launch::async, [&] { return listener.accept(); });
        ASSERT_TRUE(
            eventually([&] { return SystemCallFault::failures(Call::accept4) > before + 1; }));
        EXPECT_EQ(accepting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    } // sessions end somewhere and free theirs
    ASSERT_EQ(accepting.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_NE(accepting.get(), nullptr);

    auto waiting =
        testing::callUntilBlockedIn({SYS_poll, SYS_ppoll}, [&] { return listener.accept(); });
    ASSERT_TRUE(waiting.blocked);
    listener.stop();
    EXPECT_EQ(waiting.result.get(), nullptr);
    EXPECT_EQ(listener.accept(), nullptr);
}

} // namespace
} // namespace kestrelvane
