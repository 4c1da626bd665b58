#include "KestrelvaneKit/log/KVLog.h"

#include "KestrelvaneKit/log/TransferMetrics.h"
#include "support/ScopedEnvironment.h"
#include "support/ScopedLogSink.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"
#include "support/UnprivilegedChild.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>

namespace kestrelvane {
namespace {

TEST(KVLog, WritesSizesAndRatesInMebibytesAndADashForNoTime) {
    EXPECT_EQ(KVLog::mb(std::uint64_t{1'572'864}), "1.5MB");
    EXPECT_EQ(KVLog::Lines::recv("b", 1'048'576, 0.25), "RECV b 1.0MB in=250ms rate=4.0MB/s");
    for (const double seconds : {0.0, -1.0, std::nan("")}) {
        EXPECT_EQ(KVLog::throughput(1'048'576, seconds), "\u2014") << seconds;
    }
    TransferMetrics metrics;
    for (const std::int64_t depth : {1, 3, 1}) {
        metrics.record(1, depth);
    }
    EXPECT_EQ(metrics.summary(), (TransferMetrics::Summary{3, 5.0 / 3, 3}));
}

// A German user's locale writes "1,5"; the log must not.
TEST(KVLog, NumbersIgnoreTheUsersLocale) {
    const testing::TemporaryFolder folder;
    testing::writeFile(folder.path() / "comma.def",
                       "LC_NUMERIC\ndecimal_point \",\"\nEND LC_NUMERIC\n");
    testing::writeFile(folder.path() / "empty.map", "CHARMAP\nEND CHARMAP\n");
    // -c: the locale is written although its other categories are missing (exit status 1).
    const std::string build = "cd '" + folder.path().string() +
                              "' && localedef -c -i comma.def -f empty.map ./comma 2>/dev/null";
    ASSERT_NE(std::system(build.c_str()), -1);
    const testing::ScopedEnvironment path("LOCPATH", folder.path().string());
    // In a child: glibc keeps the locale path it read from LOCPATH for the
    // rest of the process, where the leak checker would take it for a leak.
    testing::runInChild([] {
        const locale_t comma = ::newlocale(LC_NUMERIC_MASK, "comma", nullptr);
        ASSERT_NE(comma, nullptr) << "localedef made no locale";
        ::uselocale(comma);
        EXPECT_EQ(KVLog::mb(std::uint64_t{1'572'864}), "1.5MB");
    });
}

TEST(KVLog, RecordsReachTheSinkWithCategoryAndLevelAndStderrMarksErrors) {
    const testing::ScopedLogSink memory;
    KVLog::net().info("RECV a");
    KVLog::transfer().error("ACK-ERR a: ?");
    ::testing::internal::CaptureStderr();
    for (const auto& record : memory->records()) {
        KVLog::stderrSink()->write(record);
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "net: RECV a\ntransfer error: ACK-ERR a: ?\n");
}

} // namespace
} // namespace kestrelvane
