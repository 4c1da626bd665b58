#include "KestrelvaneKit/session/ScratchFolder.h"

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
    std::atomic<bool> done = false;
    std::atomic<int> removed = 0;
    std::thread cleaner([&] {
        while (!done) {
            removed += ScratchFolder::removeAbandoned(temporary.path());
        }
    });
    for (int i = 0; i < 300; ++i) {
        try {
            const ScratchFolder folder;
            EXPECT_TRUE(std::filesystem::is_directory(folder.path())) << folder.path();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
    }
    done = true;
    cleaner.join();
    EXPECT_EQ(removed, 0);
    EXPECT_TRUE(std::filesystem::is_empty(temporary.path()));
}

} // namespace
} // namespace kestrelvane::cli
