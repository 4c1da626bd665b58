#include "KestrelvaneKit/log/KVLog.h"

#include "KestrelvaneKit/log/TransferMetrics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <thread>
#include <unistd.h>

namespace kestrelvane {
namespace {

TEST(KVLog, FormatsSizesAndRatesInMebibytes) {
    EXPECT_EQ(KVLog::mb(std::int64_t{0}), "0.0MB");
    EXPECT_EQ(KVLog::mb(std::uint64_t{1'572'864}), "1.5MB");
    EXPECT_EQ(KVLog::mb(std::int64_t{1'048'575}), "1.0MB");
    EXPECT_EQ(KVLog::throughput(1'048'576, 0.5), "2.0MB/s");
    EXPECT_EQ(KVLog::throughput(1'048'576, 0.0), "\u2014");
    EXPECT_EQ(KVLog::throughput(1'048'576, -1.0), "\u2014");
    EXPECT_EQ(KVLog::throughput(1'048'576, std::nan("")), "\u2014");
}

TEST(KVLog, SummaryLineReadsAsTheVocabularyWritesIt) {
    TransferMetrics metrics;
    metrics.record(20'971'520, 1);
    metrics.record(20'971'520, 2);
    metrics.record(10'485'760, 2);
    const auto summary = metrics.summary();
    EXPECT_EQ(KVLog::Lines::summary(3, 2, summary.totalBytes, 2.0, summary.averageDepth,
                                    summary.maxDepth),
              "SUMMARY files=3 ok=2 failed=1 bytes=50.0MB wall=2.0s throughput=25.0MB/s "
              "avgInflight=1.7 maxInflight=2");
    const auto fresh = TransferMetrics().summary();
    EXPECT_EQ(fresh, (TransferMetrics::Summary{0, 0.0, 0}));
    EXPECT_EQ(KVLog::Lines::summary(0, 0, 0, 0.0, fresh.averageDepth, fresh.maxDepth),
              "SUMMARY files=0 ok=0 failed=0 bytes=0.0MB wall=0.0s throughput=\u2014 "
              "avgInflight=0.0 maxInflight=0");
}

TEST(KVLog, EveryOtherLineOfTheVocabulary) {
    EXPECT_EQ(KVLog::Lines::start(3, 52'428'800), "START files=3 bytes=50.0MB");
    EXPECT_EQ(KVLog::Lines::sent("a.jpg", 3'145'728, 0.5, 2),
              "SENT a.jpg 3.0MB wire=6.0MB/s inflight=2");
    EXPECT_EQ(KVLog::Lines::ackError("a.jpg", "?"), "ACK-ERR a.jpg: ?");
    EXPECT_EQ(KVLog::Lines::ackReadEndedEarly(2, 3), "ACK-READ ended early at 2/3");
    EXPECT_EQ(KVLog::Lines::accepted(), "ACCEPTED connection");
    EXPECT_EQ(KVLog::Lines::readerEnded(12.345), "READER ended after 12.3s");
    EXPECT_EQ(KVLog::Lines::recv("b.mov", 1'048'576, 0.25),
              "RECV b.mov 1.0MB in=250ms rate=4.0MB/s");
    EXPECT_EQ(KVLog::Lines::recv("c.jpg", 0, 0.0), "RECV c.jpg 0.0MB in=0ms rate=\u2014");
    EXPECT_EQ(KVLog::Lines::checksumMismatch("d.jpg"), "CHECKSUM-MISMATCH d.jpg");
}

TEST(KVLog, RecordsReachTheChosenSinkWithCategoryAndLevelFromAnyThread) {
    auto memory = std::make_shared<KVLog::MemorySink>();
    const auto previous = KVLog::setSink(memory);
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([] {
                for (int i = 0; i < 100; ++i) {
                    KVLog::net().info("x");
                }
            });
        }
    }
    KVLog::transfer().error("ACK-ERR a: ?");
    KVLog::setSink(nullptr);
    KVLog::listener().info("dropped");
    KVLog::setSink(previous);

    const auto records = memory->records();
    ASSERT_EQ(records.size(), 401u);
    EXPECT_EQ(records.back(),
              (KVLog::Record{KVLog::Category::transfer, KVLog::Level::error, "ACK-ERR a: ?"}));
    EXPECT_EQ(KVLog::categoryName(KVLog::Category::usbmux), "usbmux");
}

TEST(KVLog, StderrSinkWritesOneLinePerRecordWithTheLevelOfErrors) {
    std::FILE* capture = std::tmpfile();
    ASSERT_NE(capture, nullptr);
    std::fflush(stderr);
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(::fileno(capture), STDERR_FILENO);
    const auto sink = KVLog::stderrSink();
    sink->write({KVLog::Category::net, KVLog::Level::normal, "RECV a 0.0MB in=0ms rate=\u2014"});
    sink->write({KVLog::Category::net, KVLog::Level::error, "CHECKSUM-MISMATCH a"});
    std::fflush(stderr);
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);

    std::rewind(capture);
    char buffer[256] = {};
    const std::size_t read = std::fread(buffer, 1, sizeof buffer - 1, capture);
    std::fclose(capture);
    EXPECT_EQ(std::string(buffer, read),
              "net: RECV a 0.0MB in=0ms rate=\u2014\nnet error: CHECKSUM-MISMATCH a\n");
}

TEST(KVLog, ClockIsMonotonicSeconds) {
    const double before = KVLog::now();
    const double after = KVLog::now();
    EXPECT_GE(after, before);
    EXPECT_GT(before, 0.0);
}

} // namespace
} // namespace kestrelvane
