#include "KestrelvaneKit/intake/MediaScanner.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <fstream>
#include <sys/stat.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryFolder;

void touch(const fs::path& file) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "x";
}

/// The scan's result as paths relative to `root`.
std::vector<std::string> scanned(const fs::path& root) {
    std::vector<std::string> relative;
    for (const fs::path& file : MediaScanner::scan(root)) {
        relative.push_back(file.lexically_relative(root).string());
    }
    return relative;
}

/// The names in `folder` in the order the file system lists them.
std::vector<std::string> listingOrder(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

/// Runs `body` with ICU's default locale set to `locale`, as for a user of it.
template <class Body> void inLocale(const char* locale, Body body) {
    const icu::Locale before = icu::Locale::getDefault();
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale(locale), status);
    body();
    icu::Locale::setDefault(before, status);
}

TEST(MediaScanner, ClassifiesByTheLowerCasedLastExtensionOnly) {
    using enum MediaType;
    const std::pair<const char*, std::optional<MediaType>> cases[] = {
        {"photo.HEIC", photo},       {"IMG_1.Jpeg", photo},       {"raw.3fr", photo},
        {"/a/b/x.CR3", photo},       {"movie.M4V", video},        {"clip.MOV", video},
        {"archive.tar.mp4", video},  {"scan.gif", std::nullopt},  {"x.webp", std::nullopt},
        {"noext", std::nullopt},     {"x.avi", std::nullopt},     {"x.jpg.xmp", std::nullopt},
        {"dir.jpg/x", std::nullopt}, {"trailing.", std::nullopt},
    };
    for (const auto& [name, expected] : cases) {
        EXPECT_EQ(MediaScanner::mediaType(name), expected) << name;
    }
    for (const std::string& extension : MediaScanner::photoExtensions()) {
        EXPECT_FALSE(MediaScanner::videoExtensions().contains(extension)) << extension;
    }
}

TEST(MediaScanner, FlattensTheTreeAndSortsByFileNameAloneIgnoringCase) {
    TemporaryFolder folder;
    const fs::path root = folder.path();
    for (const char* name : {"b.jpg", "A.png", "c.txt", ".secret.jpg", "x/a.mov", "x/y/C.heic",
                             "Thing.bundle/img.jpg", "README"}) {
        touch(root / name);
    }
    EXPECT_EQ(scanned(root), (std::vector<std::string>{"x/a.mov", "A.png", "b.jpg", "x/y/C.heic",
                                                       "Thing.bundle/img.jpg"}));
    // Locations come back under the folder exactly as it was given.
    EXPECT_EQ(MediaScanner::scan(root / "x" / "..").front(), root / "x" / ".." / "x" / "a.mov");
}

TEST(MediaScanner, HiddenEntriesAreNeitherReturnedNorEntered) {
    TemporaryFolder folder;
    const fs::path root = folder.path();
    for (const char* name :
         {".cache/a.jpg", ".cache/sub/b.jpg", "visible/.hidden.png", "visible/shown.png", ".mov"}) {
        touch(root / name);
    }
    EXPECT_EQ(scanned(root), (std::vector<std::string>{"visible/shown.png"}));
}

TEST(MediaScanner, KeepsRegularFilesOnlyAndFollowsNoSymbolicLink) {
    TemporaryFolder folder;
    TemporaryFolder elsewhere;
    const fs::path root = folder.path();
    touch(root / "real.jpg");
    touch(elsewhere.path() / "outside.jpg");
    fs::create_symlink(root / "real.jpg", root / "link.jpg");
    fs::create_symlink(elsewhere.path(), root / "linked-folder");
    fs::create_symlink(root, root / "loop");
    fs::create_symlink(root / "gone.jpg", root / "dangling.jpg");
    ASSERT_EQ(::mkfifo((root / "pipe.mov").c_str(), 0600), 0);
    fs::create_directory(root / "folder.jpg");

    EXPECT_EQ(scanned(root), (std::vector<std::string>{"real.jpg"}));
}

TEST(MediaScanner, EqualNamesKeepTheOrderOfTheWalk) {
    // Enough equal names that an unstable sort would reorder them.
    TemporaryFolder folder;
    const fs::path root = folder.path();
    for (int i = 0; i < 48; ++i) {
        touch(root / ("d" + std::to_string(i)) / (i % 2 ? "a.jpg" : "A.JPG"));
    }
    touch(root / "b.jpg");
    // The walk enters each folder where the listing meets it.
    std::vector<std::string> expected;
    for (const std::string& top : listingOrder(root)) {
        if (top != "b.jpg") {
            expected.push_back(top + "/" + listingOrder(root / top).front());
        }
    }
    expected.push_back("b.jpg");
    EXPECT_EQ(scanned(root), expected);
}

TEST(MediaScanner, AnEntryWhoseTypeCannotBeReadFailsTheScan) {
    TemporaryFolder folder;
    touch(folder.path() / "a.jpg");
    touch(folder.path() / "sub" / "b.jpg");
    const auto failOnB = [](const fs::directory_entry& entry, std::error_code& error) {
        if (entry.path().filename() == "b.jpg") {
            error = std::make_error_code(std::errc::io_error);
            return fs::file_status{};
        }
        return entry.symlink_status(error);
    };
    try {
        MediaScanner::scan(folder.path(), failOnB);
        FAIL() << "the scan went on";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.path1(), folder.path() / "sub" / "b.jpg");
        EXPECT_EQ(error.code(), std::errc::io_error);
        EXPECT_NE(std::string(error.what()).find("cannot read the type"), std::string::npos);
    }
}

TEST(MediaScanner, OrdersNamesAsTheUsersLocaleDoes) {
    TemporaryFolder folder;
    const fs::path root = folder.path();
    for (const char* name :
         {"z.jpg", "\xC3\xA4.jpg" /* ä */, "B.jpg", "a.jpg", "e.jpg", "\xC3\xA9.jpg" /* é */}) {
        touch(root / name);
    }
    inLocale("en_US", [&] {
        EXPECT_EQ(scanned(root), (std::vector<std::string>{"a.jpg", "\xC3\xA4.jpg", "B.jpg",
                                                           "e.jpg", "\xC3\xA9.jpg", "z.jpg"}));
    });
    inLocale("sv_SE", [&] { // Swedish puts ä after z
        EXPECT_EQ(scanned(root),
                  (std::vector<std::string>{"a.jpg", "B.jpg", "e.jpg", "\xC3\xA9.jpg", "z.jpg",
                                            "\xC3\xA4.jpg"}));
    });
}

TEST(MediaScanner, NothingToFindIsAnEmptyListNotAnError) {
    TemporaryFolder folder;
    touch(folder.path() / "notes.txt");
    touch(folder.path() / "sub" / "picture.gif");
    EXPECT_TRUE(MediaScanner::scan(folder.path()).empty());
    EXPECT_TRUE(MediaScanner::scan(folder.path() / "missing").empty());
    EXPECT_TRUE(MediaScanner::scan(folder.path() / "notes.txt").empty());
}

} // namespace
} // namespace kestrelvane
