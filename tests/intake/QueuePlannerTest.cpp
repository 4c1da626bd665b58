#include "KestrelvaneKit/intake/QueuePlanner.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fstream>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using Paths = std::vector<fs::path>;
using testing::TemporaryFolder;

class QueuePlannerTest : public ::testing::Test {
protected:
    fs::path file(const std::string& name) {
        const fs::path path = p / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "x";
        return path;
    }

    TemporaryFolder folder;
    const fs::path& p = folder.path();
};

TEST_F(QueuePlannerTest, SpellingsOfOnePathAreOneKeyAndTheFirstIsReturnedAsGiven) {
    const fs::path a = file("a.jpg");
    fs::create_directory(p / "x");
    EXPECT_EQ(QueuePlanner::plan({p / "./a.jpg", a, p / "x/../a.jpg", p / "x//..//a.jpg"}, {}),
              Paths{p / "./a.jpg"});
    EXPECT_EQ(QueuePlanner::key(p / "x/.././a.jpg"), a.string());
    EXPECT_EQ(QueuePlanner::key(p / "x/"), (p / "x").string());
}

TEST_F(QueuePlannerTest, FilesAlreadyQueuedAreNotAddedAgain) {
    const fs::path a = file("a.jpg");
    const fs::path b = file("b.jpg");
    EXPECT_EQ(QueuePlanner::plan({p / "x/../a.jpg", b, a}, {a}), Paths{b});
    // Queued entries need not exist any more to count.
    EXPECT_EQ(QueuePlanner::plan({b}, {p / "gone.jpg", p / "./b.jpg"}), Paths{});
}

TEST_F(QueuePlannerTest, AFolderContributesItsSortedFilesAtItsOwnPlace) {
    const fs::path z = file("z.jpg");
    file("q/b.jpg");
    file("q/sub/A.mov");
    file("q/notes.txt");
    const fs::path c = file("c.png");
    EXPECT_EQ(QueuePlanner::plan({z, p / "q", c}, {}),
              (Paths{z, p / "q/sub/A.mov", p / "q/b.jpg", c}));
}

TEST_F(QueuePlannerTest, TheFirstOccurrenceWinsBetweenFoldersAndFiles) {
    const fs::path a = file("a.jpg");
    const fs::path b = file("b.jpg");
    // Folder first: its files, in name order; the direct a.jpg after it is a duplicate.
    EXPECT_EQ(QueuePlanner::plan({p, a}, {}), (Paths{a, b}));
    // File first: it keeps its place (and spelling); the folder adds only the rest.
    EXPECT_EQ(QueuePlanner::plan({p / "./a.jpg", p}, {}), (Paths{p / "./a.jpg", b}));
    // The same folder twice, under two spellings, adds its files once.
    EXPECT_EQ(QueuePlanner::plan({p, p / "."}, {}), (Paths{a, b}));
}

TEST_F(QueuePlannerTest, CaseDiffersButCanonicallyEquivalentNamesAreOneKey) {
    const fs::path upper = file("A.JPG");
    const fs::path lower = file("a.jpg");
    EXPECT_EQ(QueuePlanner::plan({upper, lower}, {}), (Paths{upper, lower}));

    // "é" composed (U+00E9) and decomposed (e + U+0301): two files on this
    // file system, one name to the queue.
    const fs::path composed = file("caf\xC3\xA9.jpg");
    const fs::path decomposed = file("cafe\xCC\x81.jpg");
    EXPECT_EQ(QueuePlanner::plan({decomposed, composed}, {}), Paths{decomposed});
    EXPECT_EQ(QueuePlanner::plan({composed}, {decomposed}), Paths{});
}

TEST_F(QueuePlannerTest, SymbolicLinksAreNeitherResolvedInKeysNorFollowedInsideFolders) {
    const fs::path a = file("q/a.jpg");
    fs::create_symlink(a, p / "link.jpg");
    fs::create_symlink(p / "q", p / "linked-q");
    // A dropped link counts as its own location; a dropped link to a folder is scanned.
    EXPECT_EQ(QueuePlanner::plan({a, p / "link.jpg"}, {}), (Paths{a, p / "link.jpg"}));
    EXPECT_EQ(QueuePlanner::plan({p / "linked-q"}, {}), Paths{p / "linked-q/a.jpg"});
}

TEST_F(QueuePlannerTest, NonMediaAndMissingPathsVanishAndHiddenFilesDroppedDirectlyStay) {
    const fs::path notes = file("notes.txt");
    const fs::path hidden = file(".hidden.jpg");
    EXPECT_EQ(QueuePlanner::plan({notes, p / "missing.jpg", p / "missing-folder", hidden}, {}),
              Paths{hidden});
    EXPECT_EQ(QueuePlanner::plan({}, {hidden}), Paths{});
}

TEST_F(QueuePlannerTest, AFailedFolderScanFailsThePlan) {
    const fs::path a = file("a.jpg");
    file("q/b.jpg");
    const auto unreadableTypes = [](const fs::path& scanned) {
        return MediaScanner::scan(scanned, [](const fs::directory_entry&, std::error_code& error) {
            error = std::make_error_code(std::errc::permission_denied);
            return fs::file_status{};
        });
    };
    EXPECT_EQ(QueuePlanner::plan({a}, {}, unreadableTypes), Paths{a}); // no folder, no scan
    EXPECT_THROW(QueuePlanner::plan({a, p / "q"}, {}, unreadableTypes), fs::filesystem_error);
}

} // namespace
} // namespace kestrelvane
