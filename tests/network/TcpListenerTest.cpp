#include "KestrelvaneKit/network/TcpListener.h"

#include "NetworkTestSupport.h"
#include "support/BlockedThread.h"
#include "support/DescriptorShortage.h"
#include "support/Eventually.h"
#include "support/Loopback.h"
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
    if (testing::hasIPv6Loopback()) {
        expectRoundTrip(listener, "::1", "six");
    } else {
        std::cout << "IPv6 part left out: this machine has no ::1\n";
    }
}

TEST(TcpListener, StopWakesAWaitingAcceptAndEveryLaterOneReturnsNothing) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto waiting =
        testing::callUntilBlockedIn({SYS_poll, SYS_ppoll}, [&] { return listener.accept(); });
    ASSERT_TRUE(waiting.blocked);
    listener.stop();
    EXPECT_EQ(waiting.result.get(), nullptr);
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
    // The counts are the whole program's: other tests of this binary fail these calls too.
    const int sends = SystemCallFault::failures(SystemCallFault::Call::send);
    const int receives = SystemCallFault::failures(SystemCallFault::Call::recv);
    {
        const SystemCallFault interrupted(SystemCallFault::Call::send, EINTR, 1);
        pair.client.send(data);
    }
    {
        const SystemCallFault interrupted(SystemCallFault::Call::recv, EINTR, 1);
        EXPECT_EQ(receiveAll(*pair.accepted, data.size()), data);
    }
    EXPECT_EQ(SystemCallFault::failures(SystemCallFault::Call::send), sends + 1);
    EXPECT_EQ(SystemCallFault::failures(SystemCallFault::Call::recv), receives + 1);

    const auto failsWithEIO = [](const std::function<void()>& call, const char* text) {
        const auto error = testing::systemErrorOf(call);
        return error && error->code() == std::errc::io_error && testing::startsWith(*error, text);
    };
    {
        const SystemCallFault failing(SystemCallFault::Call::send, EIO, 1);
        EXPECT_TRUE(failsWithEIO([&] { pair.client.send(data); }, "send() failed (5)"));
    }
    {
        const SystemCallFault failing(SystemCallFault::Call::recv, EIO, 1);
        EXPECT_TRUE(failsWithEIO([&] { pair.accepted->receive(10); }, "recv() failed (5)"));
    }
}

bool isFailed(TcpConnection::State state) {
    return state == TcpConnection::State::failed;
}

TEST(TcpConnection, NoSocketForAnyAddressFailsWithTheSocketError) {
    TcpConnection connection("127.0.0.1", 9);
    const SystemCallFault noSockets(SystemCallFault::Call::socket, EMFILE);
    const auto report = testing::startUntilReport(connection, isFailed);
    ASSERT_TRUE(report && report->second);
    const auto& error = report->second;
    EXPECT_EQ(error->code(), std::errc::too_many_files_open);
    EXPECT_EQ(std::string(error->what()).rfind("socket() failed (24)", 0), 0u) << error->what();
}

TEST(TcpConnection, AConnectWhoseOutcomeCannotBeReadFailsWithThatError) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    TcpConnection connection("127.0.0.1", listener.port());
    const SystemCallFault unreadable(SystemCallFault::Call::getsockopt, EIO);
    const auto report = testing::startUntilReport(connection, [](TcpConnection::State state) {
        return state != TcpConnection::State::preparing;
    });
    ASSERT_TRUE(report);
    if (SystemCallFault::failures(SystemCallFault::Call::getsockopt) == 0) {
        GTEST_SKIP() << "the connect completed at once, so its outcome was never asked for";
    }
    ASSERT_TRUE(isFailed(report->first)) << "connected although its outcome could not be read";
    const auto& error = report->second;
    ASSERT_TRUE(error);
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
    const auto acceptFailsWith = [&](const char* text) {
        const auto error = testing::systemErrorOf([&] { listener.accept(); });
        return error && testing::startsWith(*error, text);
    };
    {
        const SystemCallFault failing(SystemCallFault::Call::poll, EIO, 1);
        EXPECT_TRUE(acceptFailsWith("poll() failed (5)"));
    }
    {
        const SystemCallFault failing(SystemCallFault::Call::accept4, EPERM, 1);
        EXPECT_TRUE(acceptFailsWith("accept() failed (1)"));
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
    TcpConnection connection("no-such-host.invalid", 1);
    // Without a reachable name server the lookup cannot know yet: waiting, not failed.
    const auto report = testing::startUntilReport(connection, [](TcpConnection::State state) {
        return isFailed(state) || state == TcpConnection::State::waiting;
    });
    ASSERT_TRUE(report && report->second);
    const auto& error = report->second;
    EXPECT_EQ(&error->code().category(), &TcpConnection::resolverCategory());
    EXPECT_EQ(std::string(error->what()).rfind("getaddrinfo() failed (", 0), 0u) << error->what();
    connection.cancel();
}

} // namespace
} // namespace kestrelvane
