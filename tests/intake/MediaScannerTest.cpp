#include "KestrelvaneKit/intake/MediaScanner.h"

#include "support/CaughtError.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <sys/stat.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

/// The scan's result as paths relative to `root`.
Names scanned(const fs::path& root) {
    Names relative;
    for (const fs::path& file : MediaScanner::scan(root)) {
        relative.push_back(file.lexically_relative(root).string());
    }
    return relative;
}

void touch(const fs::path& root, const Names& names) {
    for (const std::string& name : names) {
        testing::writeFile(root / name, "x");
    }
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
}

// Hidden entries are neither returned nor entered, and no symbolic link is followed.
TEST(MediaScanner, FlattensTheTreeToItsVisibleRegularMediaFilesSortedByNameAlone) {
    const testing::TemporaryFolder folder;
    const testing::TemporaryFolder elsewhere;
    const fs::path root = folder.path();
    touch(root, {"b.jpg", "A.png", "c.txt", ".secret.jpg", "x/a.mov", "x/y/C.heic", "README",
                 "Thing.bundle/img.jpg", ".cache/d.jpg", "x/.hidden/e.png", ".mov"});
    touch(elsewhere.path(), {"outside.jpg"});
    fs::create_symlink(root / "b.jpg", root / "link.jpg");
    fs::create_symlink(elsewhere.path(), root / "linked-folder");
    fs::create_symlink(root, root / "loop");
    fs::create_symlink(root / "gone.jpg", root / "dangling.jpg");
    ASSERT_EQ(::mkfifo((root / "pipe.mov").c_str(), 0600), 0);
    fs::create_directory(root / "folder.jpg");

    EXPECT_EQ(scanned(root),
              (Names{"x/a.mov", "A.png", "b.jpg", "x/y/C.heic", "Thing.bundle/img.jpg"}));
    // Locations come back under the folder exactly as it was given.
    EXPECT_EQ(MediaScanner::scan(root / "x" / "..").front(), root / "x" / ".." / "x" / "a.mov");
    // Nothing to find is an empty list, not an error; an entry whose type cannot be read is one.
    EXPECT_TRUE(MediaScanner::scan(root / "missing").empty());
    EXPECT_TRUE(MediaScanner::scan(root / "c.txt").empty());
    const auto failure = testing::errorOf<fs::filesystem_error>([&] {
        MediaScanner::scan(root, [](const fs::directory_entry& entry, std::error_code& error) {
            return entry.path().filename() == "C.heic"
                       ? (error = std::make_error_code(std::errc::io_error), fs::file_status{})
                       : entry.symlink_status(error);
        });
    });
    ASSERT_TRUE(failure) << "the scan went on";
    EXPECT_EQ(failure->path1(), root / "x/y/C.heic");
    EXPECT_EQ(failure->code(), std::errc::io_error);
}

TEST(MediaScanner, OrdersNamesAsTheUsersLocaleDoes) {
    const testing::TemporaryFolder folder;
    touch(folder.path(), {"z.jpg", "\u00e4.jpg", "B.jpg", "a.jpg", "e.jpg", "\u00e9.jpg"});
    const icu::Locale before = icu::Locale::getDefault();
    UErrorCode status = U_ZERO_ERROR;
    const std::pair<const char*, Names> orders[] = {
        {"en_US", {"a.jpg", "\u00e4.jpg", "B.jpg", "e.jpg", "\u00e9.jpg", "z.jpg"}},
        {"sv_SE", {"a.jpg", "B.jpg", "e.jpg", "\u00e9.jpg", "z.jpg", "\u00e4.jpg"}}, // ä after z
        // ICU's C and POSIX locale orders by code point; its user gets the root order.
        {"en_US_POSIX", {"a.jpg", "\u00e4.jpg", "B.jpg", "e.jpg", "\u00e9.jpg", "z.jpg"}},
    };
    for (const auto& [locale, expected] : orders) {
        icu::Locale::setDefault(icu::Locale(locale), status);
        EXPECT_EQ(scanned(folder.path()), expected) << locale;
    }
    icu::Locale::setDefault(before, status);
}

} // namespace
} // namespace kestrelvane
