#include "ScratchFolder.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace kestrelvane::cli {
namespace {

namespace fs = std::filesystem;

/// Points the system's temporary directory at a private folder for one test.
class PrivateTemporaryDirectory {
public:
    PrivateTemporaryDirectory() { ::setenv("TMPDIR", folder_.path().c_str(), 1); }
    ~PrivateTemporaryDirectory() { ::unsetenv("TMPDIR"); }
    const fs::path& path() const { return folder_.path(); }
    std::vector<std::string> fileNames() const { return folder_.fileNames(); }

private:
    testing::TemporaryFolder folder_;
};

// Receivers starting at the same moment: one's clean-up pass must never take
// the other's brand-new folder for abandoned, lock it or remove it.
TEST(ScratchFolder, AFolderBeingMadeIsNeverTakenForAbandonedByAnotherReceiver) {
    const PrivateTemporaryDirectory temporary;
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
            EXPECT_TRUE(fs::is_directory(folder.path())) << folder.path();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
    }
    done = true;
    cleaner.join();
    EXPECT_EQ(removed, 0);
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST(ScratchFolder, TheFolderOfAReceiverThatIsGoneIsRemovedAndALiveOneKept) {
    const PrivateTemporaryDirectory temporary;
    const ScratchFolder live;
    const fs::path abandoned = temporary.path() / (std::string(ScratchFolder::prefix) + "dead01");
    fs::create_directory(abandoned);
    std::ofstream(abandoned / "half-received.jpg") << "partial";
    EXPECT_EQ(ScratchFolder::removeAbandoned(temporary.path()), 1);
    EXPECT_FALSE(fs::exists(abandoned));
    EXPECT_TRUE(fs::is_directory(live.path()));
}

} // namespace
} // namespace kestrelvane::cli
