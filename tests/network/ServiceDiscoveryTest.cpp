#include "support/ChildProcess.h"

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

} // namespace
} // namespace kestrelvane
