#include "KestrelvaneKit/network/TcpListener.h"

#include "support/BlockedThread.h"
#include "support/CallOutcome.h"
#include "support/DescriptorShortage.h"
#include "support/Eventually.h"
#include "support/Loopback.h"

#include <gtest/gtest.h>

#include <future>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

using testing::outcomeOf;

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
        ASSERT_TRUE(testing::eventually([&] {
            return client.state() == TcpConnection::State::ready;
        })) << host;
        client.send(asBytes(host));
        EXPECT_EQ(asText(accepted->receive(100).data), host);
        client.cancel();
        EXPECT_TRUE(accepted->receive(100).isComplete) << host;
    }
    EXPECT_PRED2(testing::startsWith,
                 outcomeOf([&] { TcpListener(listener.port(), TcpListener::Scope::loopback); }),
                 "errno 98: bind() failed (98)");
    if (!testing::hasIPv6Loopback()) {
        GTEST_SKIP() << "this machine has no ::1: IPv6 was not tried";
    }
}

TEST(TcpListener, RunningOutOfDescriptorsMakesAcceptWaitNotFailAndStopEndsTheWait) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(client, 0);
    const sockaddr_in address{AF_INET, htons(listener.port()), {htonl(INADDR_LOOPBACK)}, {}};
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
        connected = ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        whileShort = accepting.wait_for(3 * TcpListener::resourceRetryInterval);
    } // sessions end somewhere and free theirs
    ASSERT_TRUE(filled);
    ASSERT_EQ(connected, 0);
    EXPECT_EQ(whileShort, std::future_status::timeout);
    ASSERT_EQ(accepting.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_NE(accepting.get(), nullptr);
    ::close(client);

    // stop() wakes the next accept, waiting for a connection, and every later one returns nothing.
    auto waiting =
        testing::callUntilBlockedIn({SYS_poll, SYS_ppoll}, [&] { return listener.accept(); });
    ASSERT_TRUE(waiting.blocked);
    listener.stop();
    EXPECT_EQ(waiting.result.get(), nullptr);
    EXPECT_EQ(listener.accept(), nullptr);
}

} // namespace
} // namespace kestrelvane
