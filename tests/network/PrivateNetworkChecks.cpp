// Checks that need a network of their own: run only by run-in-private-network.sh
// (through ServiceDiscoveryTest), inside a namespace with nothing but loopback
// and an avahi-daemon restricted to it.
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/PairedDevices.h"
#include "KestrelvaneKit/network/ServiceBrowser.h"
#include "KestrelvaneKit/network/ServicePublisher.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "support/CallOutcome.h"
#include "support/CliProcess.h"
#include "support/Eventually.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <future>
#include <mutex>
#include <tuple>

namespace kestrelvane {
namespace {

/// A browser running for the whole test, and the latest set it handed over.
class PrivateNetwork : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::getenv("KV_PRIVATE_NETWORK") == nullptr) {
            GTEST_SKIP() << "needs the private network of run-in-private-network.sh";
        }
        browser_.start();
    }

    /// Waits until the browser's latest set holds exactly `names`, in order.
    bool found(const std::vector<std::string>& names) {
        return testing::eventually([&] {
            const std::lock_guard lock(mutex_);
            return std::ranges::equal(latest_, names, {}, &DiscoveredService::name);
        });
    }

    std::mutex mutex_;
    std::vector<DiscoveredService> latest_; // guarded by mutex_
    ServiceBrowser browser_{[this](const std::vector<DiscoveredService>& services) {
        std::lock_guard lock(mutex_);
        latest_ = services;
    }};
};

TEST_F(PrivateNetwork, ServicesAppearWithTheirPortsAClashingNameTakesTheNextAndWithdrawnOnesGo) {
    ServicePublisher first("Kitchen", KestrelvaneService::listenerPort, {"tls=1", "fp=0123abcd"});
    first.publish();
    ASSERT_TRUE(found({"Kitchen"})) << "the first service never showed up";
    // The browser may resolve the service before the publisher hears it is established.
    EXPECT_TRUE(testing::eventually([&] { return first.isEstablished(); }));
    ServicePublisher second("Kitchen", 9877);
    second.publish();
    ASSERT_TRUE(found({"Kitchen", "Kitchen #2"}));
    EXPECT_EQ(second.name(), "Kitchen #2");
    {
        std::lock_guard lock(mutex_);
        const auto& kitchen = latest_[0];
        EXPECT_EQ(kitchen.port, 9876);
        EXPECT_EQ(latest_[1].port, 9877);
        EXPECT_EQ(kitchen.domain, "local");
        EXPECT_FALSE(kitchen.host.empty());
        EXPECT_NE(std::ranges::find(kitchen.addresses, "127.0.0.1"), kitchen.addresses.end());
        EXPECT_EQ(kitchen.txt,
                  (std::map<std::string, std::string>{{"fp", "0123abcd"}, {"tls", "1"}}));
        EXPECT_TRUE(latest_[1].txt.empty());
    }
    first.withdraw();
    EXPECT_TRUE(found({"Kitchen #2"}));
    second.withdraw();
    EXPECT_TRUE(found({}));
}

// A receiver that advertises says it speaks TLS and hints at its key, and
// `devices` tells a paired receiver from one that is not.
TEST_F(PrivateNetwork, DevicesTellsAPairedReceiverFromOneThatIsNot) {
    const testing::TemporaryFolder folder;
    const testing::ReceiverProcess receiver(folder.path(), {"--advertise", "Study"});
    ASSERT_TRUE(found({"Study"}));
    const auto pairing = [] {
        const auto listed =
            testing::run({"devices", "--json", "--wait", "2"}, {}, testing::Streams::stdoutOnly);
        const auto at = listed.text.find("\"name\":\"Study\"");
        return at == std::string::npos ? std::string() : listed.text.substr(at, 200);
    };
    EXPECT_NE(pairing().find("\"pairing\":\"paired\""), std::string::npos) << pairing();
    PairedDevices(testing::testDeviceHome() / "kestrelvane")
        .forget("receiver " + receiver.address());
    EXPECT_NE(pairing().find("\"pairing\":\"not paired\""), std::string::npos) << pairing();
}

// The daemon restarted under them (a package upgrade does that), and again:
// the browser forgets what it found, and both sides come back with the daemon.
TEST_F(PrivateNetwork, BrowserAndPublisherComeBackEveryTimeTheDaemonIsRestarted) {
    const char* daemon = std::getenv("KV_AVAHI_DAEMON");
    ASSERT_NE(daemon, nullptr);
    ServicePublisher publisher("Study", 9876);
    publisher.publish();
    ASSERT_TRUE(found({"Study"}));

    for (int restart = 1; restart <= 2; ++restart) {
        ASSERT_EQ(std::system("avahi-daemon -k"), 0);
        // -k only signals; a new daemon refuses to start while the old one still runs.
        ASSERT_TRUE(testing::eventually([] { return std::system("avahi-daemon -c") != 0; }));
        EXPECT_TRUE(found({})) << "the browser kept services of a daemon that is gone";
        EXPECT_TRUE(testing::eventually([&] { return !publisher.isEstablished(); }));

        ASSERT_EQ(std::system((std::string(daemon) + " >>/run/kv-avahi.log 2>&1 &").c_str()), 0);
        ASSERT_TRUE(found({"Study"})) << "the service did not come back after restart " << restart;
        EXPECT_TRUE(testing::eventually([&] { return publisher.isEstablished(); }));
    }
}

// Nothing but loopback here: any other address is unreachable, which the
// connection waits out (retrying) until it is cancelled. Where a sibling
// address refuses, the refusal is the answer, not a wait for a network that
// may never come.
TEST_F(PrivateNetwork, AStreamWaitsWhileTheNetworkIsUnreachableUnlessASiblingAddressRefuses) {
    using State = TcpConnection::State;
    const std::uint16_t port = TcpListener(0, TcpListener::Scope::loopback).port(); // let go
    const std::tuple<const char*, State, const char*> cases[] = {
        {"192.0.2.1", State::waiting, "closed"},
        {"two-addresses.test", State::failed, "errno 111: connect() failed"}};
    for (const auto& [host, state, outcome] : cases) {
        auto connection = std::make_shared<TcpConnection>(host, port);
        BonjourStream stream(connection);
        auto started = std::async(std::launch::async, [&] { stream.start(); });
        // The stream's own handler is installed by start(); watch the state instead.
        ASSERT_TRUE(testing::eventually([&] {
            return connection->state() == State::failed || connection->state() == State::waiting;
        }));
        EXPECT_EQ(connection->state(), state) << host;
        stream.close();
        EXPECT_PRED2(testing::startsWith, testing::outcomeOf([&] { started.get(); }), outcome);
    }
}

} // namespace
} // namespace kestrelvane
