// Pieces of the command-line tool: the progress `kestrelvane send` shows on a
// terminal, and the scratch folders of receivers started together.
#include "KestrelvaneKit/session/CountingStream.h"
#include "KestrelvaneKit/session/ScratchFolder.h"
#include "SendReporter.h"
#include "support/MemoryStream.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>

namespace kestrelvane::cli {
namespace {

constexpr std::uint64_t mib = 1'048'576;

TEST(SendReporter, TimeLeftIsTheBytesStillToSendAtTheRateSoFar) {
    std::FILE* out = std::tmpfile();
    double now = 100;
    {
        SendReporter reporter(
            SendReporter::Style::terminal, out, [&] { return now; }, std::chrono::milliseconds(0));
        reporter.start(2, 1000 * mib, "usb", std::nullopt);
        now = 175;
        reporter.sent(75 * mib); // 1 MB/s for 1:15, 925 MiB to go
    }
    std::string written(4096, '\0');
    std::rewind(out);
    written.resize(std::fread(written.data(), 1, written.size(), out));
    std::fclose(out);
    EXPECT_NE(written.find("\r\033[K0/2 files, 75.0 of 1000.0 MB, 1:15, 1.0 MB/s, 15:25 left"),
              std::string::npos)
        << written;
}

TEST(CountingStream, ReportsALargeSendPieceByPieceAsTheTransportTakesIt) {
    const auto [ours, theirs] = testing::makeMemoryStreamPair();
    std::vector<std::uint64_t> reported;
    CountingStream counting(ours, [&](std::uint64_t bytes) { reported.push_back(bytes); });
    counting.send(Bytes(2 * mib + 5, 7));
    EXPECT_EQ(reported, (std::vector<std::uint64_t>{mib, mib, 5}));
    EXPECT_EQ(theirs->pendingBytes(), 2 * mib + 5);
}

// Receivers starting at the same moment: one's clean-up pass must never take
// the other's brand-new folder for abandoned, lock it or remove it.
TEST(ScratchFolder, AFolderBeingMadeIsNeverTakenForAbandonedByAnotherReceiver) {
    const testing::TemporaryFolder temporary;
    const testing::ScopedEnvironment tmpdir("TMPDIR", temporary.path().string());
    std::atomic<int> removed = 0;
    std::jthread cleaner([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            removed += ScratchFolder::removeAbandoned(temporary.path());
        }
    });
    for (int i = 0; i < 300; ++i) {
        const ScratchFolder folder; // a failure throws, and the cleaner is stopped and joined
        EXPECT_TRUE(std::filesystem::is_directory(folder.path())) << folder.path();
    }
    cleaner.request_stop();
    cleaner.join();
    EXPECT_EQ(removed, 0);
    EXPECT_TRUE(std::filesystem::is_empty(temporary.path()));
}

} // namespace
} // namespace kestrelvane::cli
