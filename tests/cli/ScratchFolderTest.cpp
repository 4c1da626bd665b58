#include "ScratchFolder.h"

#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace kestrelvane::cli {
namespace {

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
