#include "KestrelvaneKit/intake/QueuePlanner.h"

#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using Paths = std::vector<fs::path>;

class QueuePlannerTest : public ::testing::Test {
protected:
    fs::path file(const std::string& name) { return testing::writeFile(p / name, "x"); }

    testing::TemporaryFolder folder;
    const fs::path& p = folder.path();
};

TEST_F(QueuePlannerTest, SpellingsOfOnePathAndCanonicallyEquivalentNamesAreOneKey) {
    const fs::path a = file("a.jpg");
    const fs::path b = file("b.jpg");
    fs::create_directory(p / "x");
    EXPECT_EQ(QueuePlanner::plan({p / "./a.jpg", a, p / "x/../a.jpg", p / "x//..//a.jpg"}, {}),
              Paths{p / "./a.jpg"});
    // Files already queued are not added again, whether or not they still exist.
    EXPECT_EQ(QueuePlanner::plan({p / "x/../a.jpg", b, a}, {a}), Paths{b});
    EXPECT_EQ(QueuePlanner::plan({b}, {p / "gone.jpg", p / "./b.jpg/"}), Paths{});
    // Names differing in case are two keys; canonically equivalent ones are one.
    const fs::path upper = file("A.JPG");
    EXPECT_EQ(QueuePlanner::plan({upper, a}, {}), (Paths{upper, a}));
    // "é" composed and decomposed: two files on this file system, one name to the queue.
    const fs::path composed = file("caf\u00e9.jpg");
    const fs::path decomposed = file("cafe\u0301.jpg");
    EXPECT_EQ(QueuePlanner::plan({decomposed, composed}, {}), Paths{decomposed});
    EXPECT_EQ(QueuePlanner::plan({composed}, {decomposed}), Paths{});
}

// Non-media and missing paths vanish, the missing ones named with why; a hidden
// file stays when dropped directly only.
TEST_F(QueuePlannerTest, AFolderContributesItsSortedMediaFilesAtItsPlaceOrFailsThePlan) {
    const fs::path hidden = file(".hidden.jpg");
    std::vector<QueuePlanner::Unreadable> missing;
    EXPECT_EQ(QueuePlanner::plan({file("notes.txt"), p / "missing.jpg", p / "gone", hidden}, {},
                                 &missing),
              Paths{hidden});
    ASSERT_EQ(missing.size(), 2u);
    EXPECT_EQ(missing[1].path, p / "gone");
    EXPECT_EQ(missing[1].error, std::errc::no_such_file_or_directory);
    const fs::path z = file("z.jpg");
    const fs::path b = file("q/b.jpg");
    const fs::path a = file("q/sub/A.mov");
    file("q/notes.txt");
    EXPECT_EQ(QueuePlanner::plan({z, p / "q", p}, {}), (Paths{z, a, b})); // not the hidden one
    // A file first keeps its place (and spelling); the folder adds only the rest.
    EXPECT_EQ(QueuePlanner::plan({p / "q/./b.jpg", p / "q/"}, {}), (Paths{p / "q/./b.jpg", a}));
    // A folder that cannot be scanned fails the whole plan.
    const auto unreadable = [](const fs::path& location) -> Paths {
        throw fs::filesystem_error("cannot read the type of an entry", location,
                                   std::make_error_code(std::errc::permission_denied));
    };
    EXPECT_THROW(QueuePlanner::plan({z, p / "q"}, {}, unreadable), fs::filesystem_error);
}

} // namespace
} // namespace kestrelvane
