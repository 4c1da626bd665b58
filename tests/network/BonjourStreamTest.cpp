// BonjourStream over real TCP sockets on loopback.
#include "KestrelvaneKit/network/BonjourStream.h"

#include "KestrelvaneKit/network/TcpListener.h"
#include "NetworkTestSupport.h"
#include "support/BlockedThread.h"
#include "support/CaughtError.h"
#include "support/Eventually.h"
#include "support/SystemCallFault.h"

#include <gtest/gtest.h>

#include <future>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace kestrelvane {
namespace {

using testing::eventually;

/// A stream to `listener` on 127.0.0.1, started, with the server's end of it.
struct ConnectedPair {
    std::shared_ptr<BonjourStream> client;
    std::shared_ptr<BonjourStream> server;
};

ConnectedPair connectThrough(TcpListener& listener) {
    auto client = std::make_shared<BonjourStream>(
        std::make_shared<TcpConnection>("127.0.0.1", listener.port()));
    client->start();
    auto server = std::make_shared<BonjourStream>(listener.accept());
    server->start();
    return {client, server};
}

std::string text(const Bytes& bytes) {
    return std::string(asText(bytes));
}

/// A port on which nothing listens: taken from the system, then let go.
std::uint16_t unusedPort() {
    TcpListener probe(0, TcpListener::Scope::loopback);
    return probe.port();
}

TEST(BonjourStream, StartOnAStartedStreamReturnsAtOnceWithoutTouchingTheConnection) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    pair.client->close();
    // Starting the connection again would report it cancelled; the flag keeps it untouched.
    EXPECT_NO_THROW(pair.client->start());
    EXPECT_EQ(pair.client->connection().state(), TcpConnection::State::cancelled);
}

TEST(BonjourStream, RefusedConnectionFailsWithTheSystemErrorAndALaterStartTriesAgain) {
    const std::uint16_t port = unusedPort();
    BonjourStream stream(std::make_shared<TcpConnection>("127.0.0.1", port));
    const auto refused = testing::systemErrorOf([&] { stream.start(); });
    ASSERT_TRUE(refused) << "start() succeeded with nothing listening";
    EXPECT_EQ(refused->code(), std::errc::connection_refused);
    EXPECT_TRUE(testing::startsWith(*refused, "connect() failed (111)")) << refused->what();
    EXPECT_EQ(stream.connection().state(), TcpConnection::State::failed);

    TcpListener listener(port, TcpListener::Scope::loopback);
    stream.start();
    auto accepted = listener.accept();
    ASSERT_NE(accepted, nullptr);
    BonjourStream server(accepted);
    server.start();
    stream.send(asBytes("again"));
    EXPECT_EQ(text(server.receive(5)), "again");
    stream.close();
    server.close();
}

TEST(BonjourStream, CancelDuringStartEndsItWithClosed) {
    // A listener whose queue is full drops further handshakes, so a connect
    // to it stays in progress until cancelled.
    const int full = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(full, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(full, 0), 0);
    socklen_t length = sizeof address;
    ::getsockname(full, reinterpret_cast<sockaddr*>(&address), &length);
    const std::uint16_t port = ntohs(address.sin_port);
    std::vector<std::shared_ptr<TcpConnection>> fillers;
    for (int i = 0; i < 2; ++i) {
        fillers.push_back(std::make_shared<TcpConnection>("127.0.0.1", port));
        fillers.back()->start();
    }
    // One filler takes the queue's only place; until it has, the connect
    // below could still be taken.
    ASSERT_TRUE(eventually([&] {
        return std::any_of(fillers.begin(), fillers.end(), [](const auto& filler) {
            return filler->state() == TcpConnection::State::ready;
        });
    }));

    auto connection = std::make_shared<TcpConnection>("127.0.0.1", port);
    BonjourStream stream(connection);
    const auto known = testing::threadIDs();
    auto started = std::async(std::launch::async, [&] { stream.start(); });
    // The connecting thread waits in poll() for the handshake, unless it was taken after all.
    const auto isDone = [&] {
        return started.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    ASSERT_TRUE(eventually([&] {
        return isDone() || testing::aNewThreadIsBlockedIn(known, {SYS_poll, SYS_ppoll});
    }));
    if (isDone()) {
        GTEST_SKIP() << "the kernel completed the handshake despite the full queue; "
                        "no connect in progress to cancel";
    }
    stream.close();
    EXPECT_TRUE(testing::throwsClosed([&] { started.get(); })) << "start() went on after a cancel";
    EXPECT_EQ(connection->state(), TcpConnection::State::cancelled);
    ::close(full);
}

TEST(BonjourStream, ReceiveHandsOutNoMoreThanAskedAndKeepsTheRest) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    pair.server->send(asBytes("0123456789"));
    EXPECT_EQ(text(pair.client->receive(4)), "0123");
    EXPECT_EQ(text(pair.client->receive(4)), "4567");
    EXPECT_EQ(text(pair.client->receive(4)), "89");
    EXPECT_THROW(pair.client->receive(0), std::invalid_argument);
}

TEST(BonjourStream, ReceiveIntoFillsTheCallersMemoryAndEndsWithClosedAtThePeersEnd) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    pair.server->send(asBytes("0123456789"));
    pair.server->close();
    Bytes memory(12, '#');
    std::size_t got = 0;
    while (got < 10) {
        const std::size_t n = pair.client->receiveInto(MutableByteView(memory).subspan(got, 4));
        ASSERT_GE(n, 1u);
        ASSERT_LE(n, 4u);
        got += n;
    }
    EXPECT_EQ(text(memory), "0123456789##");
    EXPECT_THROW(pair.client->receiveInto({}), std::invalid_argument);
    EXPECT_TRUE(testing::throwsClosed([&] { pair.client->receiveInto(memory); }));
}

TEST(BonjourStream, PeerCloseEndsTheStreamWithClosedOnceItsDataHasBeenRead) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    pair.server->send(asBytes("last words"));
    pair.server->close();
    EXPECT_EQ(text(pair.client->receive(100)), "last words");
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(testing::throwsClosed([&] { pair.client->receive(100); }));
    }
}

TEST(BonjourStream, ResetByThePeerReachesTheCallerAsTheSystemError) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    const int peer = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(listener.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    BonjourStream stream(listener.accept());
    stream.start();
    // Lingering for zero seconds turns the peer's close into a reset.
    const linger abort{1, 0};
    ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    ::close(peer);
    const auto reset = testing::systemErrorOf([&] { stream.receive(10); });
    ASSERT_TRUE(reset) << "receive() returned after a reset";
    EXPECT_EQ(reset->code(), std::errc::connection_reset) << reset->what();
    EXPECT_TRUE(testing::startsWith(*reset, "recv() failed (104)")) << reset->what();
}

TEST(BonjourStream, CloseWakesAWaitingReceiveAndLaterCallsFail) {
    for (const bool intoCallersMemory : {false, true}) {
        TcpListener listener(0, TcpListener::Scope::loopback);
        auto pair = connectThrough(listener);
        auto waiting = testing::callUntilBlockedIn({SYS_recvfrom}, [&] {
            return testing::systemErrorOf([&] {
                Bytes memory(10);
                if (intoCallersMemory) {
                    pair.client->receiveInto(memory);
                } else {
                    pair.client->receive(10);
                }
            });
        });
        ASSERT_TRUE(waiting.blocked);
        pair.client->close();
        const auto woken = waiting.result.get();
        ASSERT_TRUE(woken) << "the receive returned bytes after close()";
        EXPECT_EQ(woken->code(), std::errc::operation_canceled) << woken->what();
        EXPECT_THROW(pair.client->send(asBytes("late")), std::system_error);
        EXPECT_THROW(pair.client->receive(1), std::system_error);
        pair.client->close(); // a second close does nothing
    }
}

TEST(BonjourStream, IdleTimeoutsEndCallsThatMoveNothingAndSayAfterHowLong) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    pair.server->connection().setIdleTimeout(std::chrono::milliseconds(500));
    EXPECT_EQ(pair.server->connection().idleTimeout(), std::chrono::milliseconds(500));
    pair.client->send(asBytes("x"));
    EXPECT_EQ(text(pair.server->receive(10)), "x"); // bytes that come are no idleness
    // The kernel ends a call that moved nothing for that long with EAGAIN.
    using testing::SystemCallFault;
    const auto timesOut = [](SystemCallFault::Call call, const std::function<void()>& work,
                             const std::string& expected) {
        const SystemCallFault idle(call, EAGAIN, 1);
        const auto error = testing::systemErrorOf(work);
        ASSERT_TRUE(error) << expected;
        EXPECT_EQ(error->code(), std::errc::timed_out) << error->what();
        EXPECT_TRUE(testing::startsWith(*error, expected)) << error->what();
    };
    timesOut(
        SystemCallFault::Call::recv, [&] { pair.server->receive(10); },
        "recv() timed out after 500 ms");
    pair.server->connection().setIdleTimeout(std::chrono::seconds(1));
    timesOut(
        SystemCallFault::Call::send, [&] { pair.server->send(asBytes("y")); },
        "send() timed out after 1 s");
}

// The one check against the clock: only a lower bound, as a silent peer must
// make the call time out at some point.
TEST(BonjourStream, IdleTimeoutSetBeforeConnectingHoldsOnceConnected) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto connection = std::make_shared<TcpConnection>("127.0.0.1", listener.port());
    connection->setIdleTimeout(std::chrono::milliseconds(100));
    BonjourStream client(connection);
    client.start();
    auto server = listener.accept();
    const auto idle = testing::systemErrorOf([&] { client.receive(1); });
    ASSERT_TRUE(idle) << "receive() returned with nothing sent";
    EXPECT_EQ(idle->code(), std::errc::timed_out);
}

TEST(BonjourStream, ConcurrentSendsArriveWholeAndUninterleaved) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    constexpr std::size_t size = 4 * 1'048'576;
    const Bytes as(size, 'a');
    const Bytes bs(size, 'b');
    auto reader = std::async(std::launch::async, [&] {
        Bytes all;
        while (all.size() < 2 * size) {
            const auto piece = pair.server->receive(262'144);
            all.insert(all.end(), piece.begin(), piece.end());
        }
        return all;
    });
    auto first = std::async(std::launch::async, [&] { pair.client->send(as); });
    auto second = std::async(std::launch::async, [&] { pair.client->send(bs); });
    first.get();
    second.get();
    const Bytes all = reader.get();
    ASSERT_EQ(all.size(), 2 * size);
    const std::uint8_t head = all.front();
    const std::uint8_t tail = head == 'a' ? 'b' : 'a';
    EXPECT_EQ(std::count(all.begin(), all.begin() + size, head), static_cast<long>(size));
    EXPECT_EQ(std::count(all.begin() + size, all.end(), tail), static_cast<long>(size));
}

} // namespace
} // namespace kestrelvane
