#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/network/ServiceBrowser.h"
#include "KestrelvaneKit/network/ServicePublisher.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>

namespace kestrelvane {
namespace {

/// Runs `command` through the shell; its exit status and everything it wrote.
std::pair<int, std::string> run(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return {-1, "popen failed"};
    }
    std::array<char, 4096> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) {
        output += buffer.data();
    }
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

TEST(ServiceDiscovery, PublishesAndBrowsesForRealInAPrivateNetwork) {
    // Avahi and D-Bus of our own inside a network namespace with only
    // loopback; the checks themselves are in PrivateNetworkChecks.cpp.
    const auto [status, output] = run(std::string(KV_PRIVATE_NETWORK_SCRIPT) + " " +
                                      KV_PRIVATE_NETWORK_CHECKS + " --gtest_color=no");
    if (status == 77) {
        GTEST_SKIP() << output;
    }
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output.find("SKIPPED"), std::string::npos) << output;
}

/// Points the system bus at a socket that does not exist, for one test.
class NoSystemBus : public ::testing::Test {
protected:
    void SetUp() override {
        const char* old = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
        if (old != nullptr) {
            saved_ = old;
        }
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS",
                 ("unix:path=" + (folder_.path() / "none").string()).c_str(), 1);
        previousSink_ = KVLog::setSink(sink_);
    }
    void TearDown() override {
        KVLog::setSink(previousSink_);
        if (saved_) {
            ::setenv("DBUS_SYSTEM_BUS_ADDRESS", saved_->c_str(), 1);
        } else {
            ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        }
    }

    testing::TemporaryFolder folder_;
    std::optional<std::string> saved_;
    std::shared_ptr<KVLog::MemorySink> sink_ = std::make_shared<KVLog::MemorySink>();
    std::shared_ptr<KVLog::Sink> previousSink_;
};

TEST_F(NoSystemBus, BrowserAndPublisherEachSayOnceThatDnsSdIsUnavailableAndCarryOn) {
    int changes = 0;
    ServiceBrowser browser([&](const auto&) { ++changes; });
    ServicePublisher publisher("Nowhere", 9876);
    for (int round = 0; round < 2; ++round) {
        browser.start();
        browser.start();
        publisher.publish();
        publisher.publish();
        EXPECT_FALSE(publisher.isEstablished());
        browser.stop();
        publisher.withdraw();
    }
    const auto records = sink_->records();
    ASSERT_EQ(records.size(), 2u) << "one line from each, however often started";
    for (const auto& record : records) {
        EXPECT_EQ(record.category, KVLog::Category::net);
        EXPECT_EQ(record.level, KVLog::Level::error);
        EXPECT_NE(record.message.find("unavailable: no Avahi daemon reachable"), std::string::npos)
            << record.message;
    }
    EXPECT_EQ(records[0].message.rfind("DNS-SD browsing", 0), 0u);
    EXPECT_EQ(records[1].message.rfind("DNS-SD publishing", 0), 0u);
    EXPECT_EQ(changes, 0);
}

} // namespace
} // namespace kestrelvane
