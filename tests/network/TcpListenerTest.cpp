#include "KestrelvaneKit/network/TcpListener.h"

#include "support/DescriptorShortage.h"
#include "support/Eventually.h"
#include "support/SystemCallFault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <functional>
#include <future>
#include <netinet/in.h>
#include <optional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace kestrelvane {
namespace {

/// Whether this machine can open a socket on ::1 at all.
bool hasIPv6Loopback() {
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

/// Connects from `host`, sends `word` and checks the accepted side reads it.
void expectRoundTrip(TcpListener& listener, const std::string& host, const std::string& word) {
    TcpConnection client(host, listener.port());
    client.start();
    auto accepted = listener.accept();
    ASSERT_NE(accepted, nullptr) << host;
    accepted->start();
    ASSERT_EQ(accepted->state(), TcpConnection::State::ready);
    // The accept can come before the connecting side has seen its handshake end.
    ASSERT_TRUE(testing::eventually([&] { return client.state() == TcpConnection::State::ready; }))
        << host;
    client.send(asBytes(word));
    const auto received = accepted->receive(100);
    EXPECT_EQ(asText(received.data), word) << host;
    client.cancel();
    EXPECT_TRUE(accepted->receive(100).isComplete) << host;
}

TEST(TcpListener, AcceptsIPv4AndIPv6AndNamesOnTheOnePortItReports) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    ASSERT_NE(listener.port(), 0);
    expectRoundTrip(listener, "127.0.0.1", "four");
    expectRoundTrip(listener, "localhost", "name");
    if (hasIPv6Loopback()) {
        expectRoundTrip(listener, "::1", "six");
    } else {
        std::cout << "IPv6 part left out: this machine has no ::1\n";
    }
}

TEST(TcpListener, StopWakesAWaitingAcceptAndEveryLaterOneReturnsNothing) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto waiting = std::async(std::launch::async, [&] { return listener.accept(); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    listener.stop();
    EXPECT_EQ(waiting.get(), nullptr);
    EXPECT_EQ(listener.accept(), nullptr);
}

TEST(TcpListener, PortInUseFailsWithTheBindError) {
    TcpListener first(0, TcpListener::Scope::loopback);
    try {
        TcpListener second(first.port(), TcpListener::Scope::loopback);
        FAIL() << "a second listener took port " << first.port();
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::address_in_use);
        EXPECT_EQ(std::string(error.what()).rfind("bind() failed (98)", 0), 0u) << error.what();
    }
}

TEST(TcpListener, RunningOutOfDescriptorsMakesAcceptWaitNotFail) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(client, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(listener.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Running first: while descriptors are short, even a sanitizer's runtime
    // cannot work (its checks on a thread's start among them), so nothing but
    // the accept itself may run then.
    std::promise<void> running;
    auto accepting = std::async(std::launch::async, [&] {
        running.set_value();
        return listener.accept();
    });
    running.get_future().wait();
    bool filled = false;
    int connected = -1;
    std::future_status whileShort{};
    {
        // Every descriptor up to a low limit taken, so that accept() meets EMFILE.
        const testing::DescriptorShortage shortage;
        filled = shortage.filled();
        connected = ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
        whileShort = accepting.wait_for(3 * TcpListener::resourceRetryInterval);
    } // sessions end somewhere and free theirs
    ASSERT_TRUE(filled);
    ASSERT_EQ(connected, 0);
    EXPECT_EQ(whileShort, std::future_status::timeout);
    ASSERT_EQ(accepting.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_NE(accepting.get(), nullptr);
    ::close(client);
}

/// What `make` throws while the process has no descriptor to spare (after
/// giving back `spare` of them). Looked at only once the shortage is over: a
/// sanitizer's checks on the error itself may need a descriptor.
std::optional<std::system_error> errorWithoutDescriptors(const std::function<void()>& make,
                                                         int spare = 0) {
    std::optional<std::system_error> caught;
    bool filled = false;
    {
        testing::DescriptorShortage shortage;
        filled = shortage.filled();
        for (int i = 0; i < spare; ++i) {
            shortage.release();
        }
        try {
            make();
        } catch (const std::system_error& error) {
            caught.emplace(error);
        }
    }
    EXPECT_TRUE(filled) << "no descriptor was taken: the test proves nothing";
    return caught;
}

TEST(TcpListener, AndTcpConnectionWithoutADescriptorToSpareFailWithTheSystemsError) {
    if (testing::DescriptorShortage::typeChecksNeedDescriptors()) {
        GTEST_SKIP() << "the sanitizer's type checks cannot run without a descriptor";
    }
    for (const auto& make :
         std::vector<std::function<void()>>{[] { TcpListener(0, TcpListener::Scope::loopback); },
                                            [] { TcpConnection("127.0.0.1", 9); }}) {
        const auto error = errorWithoutDescriptors(make);
        ASSERT_TRUE(error) << "made without a descriptor";
        EXPECT_EQ(error->code(), std::errc::too_many_files_open);
        EXPECT_EQ(std::string(error->what()).rfind("eventfd() failed (24)", 0), 0u)
            << error->what();
    }
}

TEST(TcpListener, WithoutADescriptorForItsSocketFailsWithTheSystemsError) {
    if (testing::DescriptorShortage::typeChecksNeedDescriptors()) {
        GTEST_SKIP() << "the sanitizer's type checks cannot run without a descriptor";
    }
    // One descriptor given back: the wake-up descriptor gets it, the socket none.
    const auto error =
        errorWithoutDescriptors([] { TcpListener(0, TcpListener::Scope::loopback); }, 1);
    ASSERT_TRUE(error) << "listening without a socket";
    EXPECT_EQ(error->code(), std::errc::too_many_files_open) << error->what();
}

using testing::SystemCallFault;

/// A client connection from loopback and the listener's side of it, both ready.
struct ConnectedPair {
    TcpListener listener{0, TcpListener::Scope::loopback};
    TcpConnection client{"127.0.0.1", listener.port()};
    std::shared_ptr<TcpConnection> accepted;

    ConnectedPair() {
        client.start();
        accepted = listener.accept();
        accepted->start();
        EXPECT_TRUE(
            testing::eventually([&] { return client.state() == TcpConnection::State::ready; }));
    }
};

Bytes receiveAll(TcpConnection& connection, std::size_t count) {
    Bytes all;
    while (all.size() < count) {
        const auto received = connection.receive(count - all.size());
        if (received.isComplete) {
            break;
        }
        all.insert(all.end(), received.data.begin(), received.data.end());
    }
    return all;
}

TEST(TcpConnection, InterruptedSendsAndReceivesGoOnAndOtherFailuresPassThrough) {
    ConnectedPair pair;
    const Bytes data{'p', 'h', 'o', 't', 'o'};
    {
        const SystemCallFault interrupted(SystemCallFault::Call::send, EINTR, 1);
        pair.client.send(data);
    }
    {
        const SystemCallFault interrupted(SystemCallFault::Call::recv, EINTR, 1);
        EXPECT_EQ(receiveAll(*pair.accepted, data.size()), data);
    }
    EXPECT_EQ(SystemCallFault::failures(SystemCallFault::Call::send), 1);
    EXPECT_EQ(SystemCallFault::failures(SystemCallFault::Call::recv), 1);

    const auto errorOf = [](const std::function<void()>& call) -> std::string {
        try {
            call();
        } catch (const std::system_error& error) {
            return error.code() == std::errc::io_error ? error.what() : "other code";
        }
        return "no error";
    };
    {
        const SystemCallFault failing(SystemCallFault::Call::send, EIO, 1);
        EXPECT_EQ(errorOf([&] { pair.client.send(data); }).rfind("send() failed (5)", 0), 0u);
    }
    {
        const SystemCallFault failing(SystemCallFault::Call::recv, EIO, 1);
        EXPECT_EQ(errorOf([&] { pair.accepted->receive(10); }).rfind("recv() failed (5)", 0), 0u);
    }
}

TEST(TcpConnection, NoSocketForAnyAddressFailsWithTheSocketError) {
    std::promise<TcpConnection::Error> failed;
    bool settled = false; // outlive the connection and its thread
    TcpConnection connection("127.0.0.1", 9);
    connection.setStateHandler([&](TcpConnection::State state, const TcpConnection::Error& error) {
        if (state == TcpConnection::State::failed && !settled) {
            settled = true;
            failed.set_value(error);
        }
    });
    const SystemCallFault noSockets(SystemCallFault::Call::socket, EMFILE);
    connection.start();
    auto future = failed.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const auto error = future.get();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), std::errc::too_many_files_open);
    EXPECT_EQ(std::string(error->what()).rfind("socket() failed (24)", 0), 0u) << error->what();
}

TEST(TcpConnection, AConnectWhoseOutcomeCannotBeReadFailsWithThatError) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    std::promise<TcpConnection::Error> failed;
    bool settled = false; // outlive the connection and its thread
    TcpConnection connection("127.0.0.1", listener.port());
    connection.setStateHandler([&](TcpConnection::State state, const TcpConnection::Error& error) {
        if (state != TcpConnection::State::preparing && !settled) {
            settled = true;
            failed.set_value(state == TcpConnection::State::failed ? error : std::nullopt);
        }
    });
    const SystemCallFault unreadable(SystemCallFault::Call::getsockopt, EIO);
    connection.start();
    auto future = failed.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const auto error = future.get();
    if (SystemCallFault::failures(SystemCallFault::Call::getsockopt) == 0) {
        GTEST_SKIP() << "the connect completed at once, so its outcome was never asked for";
    }
    ASSERT_TRUE(error) << "connected although its outcome could not be read";
    EXPECT_EQ(std::string(error->what()).rfind("connect() failed (5)", 0), 0u) << error->what();
}

TEST(TcpListener, AnInterruptedWaitGoesOnAndOtherFailuresOfPollOrAcceptAreReported) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    const auto connectClient = [&] {
        const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(listener.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return client;
    };
    const int first = connectClient();
    {
        const SystemCallFault interruptedWait(SystemCallFault::Call::poll, EINTR, 1);
        const SystemCallFault interruptedAccept(SystemCallFault::Call::accept4, EINTR, 1);
        EXPECT_NE(listener.accept(), nullptr);
    }
    const int second = connectClient();
    const auto errorOf = [&] {
        try {
            listener.accept();
        } catch (const std::system_error& error) {
            return std::string(error.what());
        }
        return std::string("no error");
    };
    {
        const SystemCallFault failing(SystemCallFault::Call::poll, EIO, 1);
        EXPECT_EQ(errorOf().rfind("poll() failed (5)", 0), 0u);
    }
    {
        const SystemCallFault failing(SystemCallFault::Call::accept4, EPERM, 1);
        EXPECT_EQ(errorOf().rfind("accept() failed (1)", 0), 0u);
    }
    // The connection that could not be taken is still there for the next accept.
    EXPECT_NE(listener.accept(), nullptr);
    ::close(first);
    ::close(second);
}

TEST(TcpConnection, MisuseIsRefusedWithInvalidArgument) {
    EXPECT_THROW(TcpConnection(-1), std::invalid_argument);
    TcpListener listener(0, TcpListener::Scope::loopback);
    TcpConnection client("127.0.0.1", listener.port());
    client.start();
    EXPECT_THROW(client.receive(0), std::invalid_argument);
    EXPECT_THROW(client.setIdleTimeout(std::chrono::milliseconds(-5)), std::invalid_argument);
    EXPECT_STREQ(TcpConnection::resolverCategory().name(), "getaddrinfo");
    auto accepted = listener.accept();
    ASSERT_TRUE(testing::eventually([&] { return client.state() == TcpConnection::State::ready; }));
    client.start(); // already ready: nothing changes
    EXPECT_EQ(client.state(), TcpConnection::State::ready);
}

TEST(TcpConnection, ReportsPreparingThenReadyAndCancelledInOrder) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    std::mutex mutex;
    std::vector<TcpConnection::State> states; // outlives the connection and its thread
    TcpConnection connection("127.0.0.1", listener.port());
    connection.setStateHandler([&](TcpConnection::State state, const TcpConnection::Error& error) {
        EXPECT_FALSE(error);
        std::lock_guard lock(mutex);
        states.push_back(state);
    });
    EXPECT_EQ(connection.state(), TcpConnection::State::setup);
    connection.start();
    auto accepted = listener.accept();
    ASSERT_TRUE(
        testing::eventually([&] { return connection.state() == TcpConnection::State::ready; }));
    connection.cancel();
    connection.cancel();
    connection.start(); // a cancelled connection says so again
    // The connecting thread may still be delivering "ready" and then delivers
    // the later reports itself, after cancel() and start() have returned.
    const std::vector expected{TcpConnection::State::preparing, TcpConnection::State::ready,
                               TcpConnection::State::cancelled, TcpConnection::State::cancelled};
    EXPECT_TRUE(testing::eventually([&] {
        std::lock_guard lock(mutex);
        return states.size() >= expected.size();
    }));
    std::lock_guard lock(mutex);
    EXPECT_EQ(states, expected);
}

TEST(TcpConnection, UnknownHostReportsTheResolverError) {
    std::promise<TcpConnection::Error> failed;
    bool settled = false; // outlive the connection and its thread
    TcpConnection connection("no-such-host.invalid", 1);
    connection.setStateHandler([&](TcpConnection::State state, const TcpConnection::Error& error) {
        // Without a reachable name server the lookup cannot know yet: waiting, not failed.
        if ((state == TcpConnection::State::failed || state == TcpConnection::State::waiting) &&
            !settled) {
            settled = true;
            failed.set_value(error);
        }
    });
    connection.start();
    auto future = failed.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const auto error = future.get();
    ASSERT_TRUE(error);
    EXPECT_EQ(&error->code().category(), &TcpConnection::resolverCategory());
    EXPECT_EQ(std::string(error->what()).rfind("getaddrinfo() failed (", 0), 0u) << error->what();
    connection.cancel();
}

} // namespace
} // namespace kestrelvane
