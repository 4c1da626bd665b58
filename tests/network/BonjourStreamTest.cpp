// BonjourStream over real TCP sockets on loopback.
#include "KestrelvaneKit/network/BonjourStream.h"

#include "KestrelvaneKit/network/TcpListener.h"
#include "support/Eventually.h"

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
    try {
        stream.start();
        FAIL() << "start() succeeded with nothing listening";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::connection_refused);
        EXPECT_EQ(std::string(error.what()).rfind("connect() failed (111)", 0), 0u) << error.what();
    }
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
    auto started = std::async(std::launch::async, [&] { stream.start(); });
    ASSERT_TRUE(eventually([&] { return connection->state() != TcpConnection::State::setup; }));
    if (started.wait_for(std::chrono::milliseconds(50)) != std::future_status::timeout) {
        started.wait();
        GTEST_SKIP() << "the kernel completed the handshake despite the full queue; "
                        "no connect in progress to cancel";
    }
    stream.close();
    try {
        started.get();
        FAIL() << "start() returned after a cancel";
    } catch (const StreamError& error) {
        EXPECT_TRUE(error.isClosed());
    }
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
    try {
        pair.client->receiveInto(memory);
        FAIL() << "receiveInto() after the peer's end returned";
    } catch (const StreamError& error) {
        EXPECT_TRUE(error.isClosed());
    }
}

TEST(BonjourStream, PeerCloseEndsTheStreamWithClosedOnceItsDataHasBeenRead) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    pair.server->send(asBytes("last words"));
    pair.server->close();
    EXPECT_EQ(text(pair.client->receive(100)), "last words");
    for (int i = 0; i < 2; ++i) {
        try {
            pair.client->receive(100);
            FAIL() << "receive() after the peer's end returned";
        } catch (const StreamError& error) {
            EXPECT_TRUE(error.isClosed());
        }
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
    try {
        stream.receive(10);
        FAIL() << "receive() returned after a reset";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::connection_reset) << error.what();
        EXPECT_EQ(std::string(error.what()).rfind("recv() failed (104)", 0), 0u) << error.what();
    }
}

TEST(BonjourStream, CloseWakesAWaitingReceiveAndLaterCallsFail) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    auto waiting = std::async(std::launch::async, [&] { return pair.client->receive(10); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    pair.client->close();
    EXPECT_THROW(waiting.get(), std::system_error);
    EXPECT_THROW(pair.client->send(asBytes("late")), std::system_error);
    EXPECT_THROW(pair.client->receive(1), std::system_error);
    pair.client->close(); // a second close does nothing
}

TEST(BonjourStream, CloseWakesAWaitingReceiveInto) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    Bytes memory(10);
    auto waiting = std::async(std::launch::async, [&] { return pair.client->receiveInto(memory); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    pair.client->close();
    try {
        waiting.get();
        FAIL() << "receiveInto() returned after close()";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::operation_canceled) << error.what();
    }
}

TEST(BonjourStream, IdleTimeoutEndsAReceiveThatGetsNothingButNotOneThatKeepsGettingBytes) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    pair.server->connection().setIdleTimeout(std::chrono::milliseconds(500));
    EXPECT_EQ(pair.server->connection().idleTimeout(), std::chrono::milliseconds(500));
    // Bytes that keep coming, each well within the limit, are not idleness.
    auto trickle = std::async(std::launch::async, [&] {
        for (int i = 0; i < 5; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            pair.client->send(asBytes("x"));
        }
    });
    Bytes all;
    while (all.size() < 5) {
        const auto piece = pair.server->receive(10);
        all.insert(all.end(), piece.begin(), piece.end());
    }
    trickle.get();
    try {
        pair.server->receive(10);
        FAIL() << "receive() returned with nothing sent";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::timed_out);
        EXPECT_EQ(std::string(error.what()).rfind("recv() timed out after 500 ms", 0), 0u)
            << error.what();
    }
    EXPECT_THROW(pair.server->connection().setIdleTimeout(std::chrono::milliseconds(-1)),
                 std::invalid_argument);
}

TEST(BonjourStream, IdleTimeoutEndsASendThePeerNeverReads) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto pair = connectThrough(listener);
    pair.client->connection().setIdleTimeout(std::chrono::seconds(1));
    const Bytes lump(1'048'576, 'z');
    try {
        for (int i = 0; i < 256; ++i) { // far beyond any socket buffer
            pair.client->send(lump);
        }
        FAIL() << "256 MiB went out with nobody reading";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::timed_out);
        EXPECT_EQ(std::string(error.what()).rfind("send() timed out after 1 s", 0), 0u)
            << error.what();
    }
}

TEST(BonjourStream, IdleTimeoutSetBeforeConnectingHoldsOnceConnected) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto connection = std::make_shared<TcpConnection>("127.0.0.1", listener.port());
    connection->setIdleTimeout(std::chrono::milliseconds(100));
    BonjourStream client(connection);
    client.start();
    auto server = listener.accept();
    try {
        client.receive(1);
        FAIL() << "receive() returned with nothing sent";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::timed_out);
    }
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
