#include "KestrelvaneKit/network/ServiceBrowser.h"
#include "KestrelvaneKit/network/ServicePublisher.h"
#include "support/ChildProcess.h"
#include "support/ScopedEnvironment.h"
#include "support/ScopedLogSink.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace kestrelvane {
namespace {

TEST(ServiceDiscovery, PublishesAndBrowsesForRealInAPrivateNetwork) {
    // Avahi and D-Bus of our own inside a network namespace with only
    // loopback; the checks themselves are in PrivateNetworkChecks.cpp.
    // Under ThreadSanitizer, libdbus's own lock ordering is not ours to report.
    const char* tsanOptions = std::getenv("TSAN_OPTIONS");
    testing::ChildProcess checks({"sh", "-c", "exec \"$0\" \"$1\" --gtest_color=no 2>&1",
                                  KV_PRIVATE_NETWORK_SCRIPT, KV_PRIVATE_NETWORK_CHECKS},
                                 {{"TSAN_OPTIONS", std::string(tsanOptions ? tsanOptions : "") +
                                                       ":suppressions=" + KV_TSAN_SUPPRESSIONS}});
    std::string output;
    while (const auto line = checks.readLine(std::chrono::minutes(2))) {
        output += *line + '\n';
    }
    const auto status = checks.waitFor();
    if (status == 77) {
        GTEST_SKIP() << output;
    }
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output.find("SKIPPED"), std::string::npos) << output;
}

TEST(NoSystemBus, BrowserAndPublisherEachSayOnceThatDnsSdIsUnavailableAndCarryOn) {
    const testing::TemporaryFolder folder;
    const testing::ScopedEnvironment noBus("DBUS_SYSTEM_BUS_ADDRESS",
                                           "unix:path=" + (folder.path() / "none").string());
    const testing::ScopedLogSink sink;
    int changes = 0;
    ServiceBrowser browser([&](const auto&) { ++changes; });
    ServicePublisher publisher("Nowhere", 9876);
    for (int round = 0; round < 2; ++round) {
        browser.start();
        publisher.publish();
        EXPECT_FALSE(publisher.isEstablished());
        browser.stop();
        publisher.withdraw();
    }
    const auto records = sink->records();
    ASSERT_EQ(records.size(), 2u) << "one line from each, however often started";
    for (const auto& [record, purpose] :
         {std::pair{records[0], "browsing"}, {records[1], "publishing"}}) {
        EXPECT_EQ(record.level, KVLog::Level::error);
        const std::string line = std::string("DNS-SD ") + purpose + " unavailable: no Avahi daemon";
        EXPECT_EQ(record.message.find(line), 0u) << record.message;
    }
    EXPECT_EQ(changes, 0);
}

} // namespace
} // namespace kestrelvane
