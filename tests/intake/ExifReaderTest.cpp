#include "KestrelvaneKit/intake/ExifReader.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <sstream>
#include <thread>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using std::chrono::duration_cast;

const fs::path media = fs::path(KV_FIXTURES_DIR) / "media";

// Every test here runs as on a computer in Paris (UTC+01:00 in winter, +02:00
// in summer), set before the reader first looks at the time zone.
[[maybe_unused]] const bool inParis = (::setenv("TZ", "Europe/Paris", 1), ::tzset(), true);

std::optional<std::string> captureDateText(const fs::path& file) {
    const auto date = ExifReader::captureDate(file);
    return date ? std::optional(Rfc3339::format(*date)) : std::nullopt;
}

// The same answers on several threads at once as one at a time, and silently.
TEST(ExifReader, ReadsNoOtherDateAndAgreesAcrossThreads) {
    const testing::TemporaryFolder folder;
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    std::vector<std::pair<fs::path, std::optional<std::string>>> cases{
        {media / "video.mov", std::nullopt}, // has a creation time of its own
        {folder.path() / "missing.jpg", std::nullopt},
        {folder.path(), std::nullopt},
        // Relative paths that name no file here, though a URL reader would find a photo in them.
        {"file://" + (media / "jpeg-original.jpg").string(), std::nullopt},
        {"-", std::nullopt},
    };
    for (const auto& fixture : fs::directory_iterator(media)) { // each checked against exiftool
        cases.emplace_back(fixture.path(), captureDateText(fixture.path()));
    }
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&cases] {
                for (const auto& [input, expected] : cases) {
                    EXPECT_EQ(captureDateText(input), expected) << input;
                }
            });
        }
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "the reader must stay silent";
}

TEST(ExifReader, AgreesWithExiftoolOnEveryPhotoFixture) {
    // scripts/bootstrap installs exiftool: without it this check is lost, not skipped.
    ASSERT_EQ(std::system("exiftool -ver >/dev/null 2>&1"), 0)
        << "exiftool is missing (Debian package libimage-exiftool-perl)";
    // Its reading of DateTimeOriginal in the first image's EXIF directory, file
    // by file: the text, and that text as seconds since the epoch here.
    const testing::TemporaryFolder scratch;
    const fs::path readings = scratch.path() / "readings";
    ASSERT_EQ(std::system(("exiftool -q -q -f -d %s -p "
                           "'$FileName|$ExifIFD:DateTimeOriginal#|$ExifIFD:DateTimeOriginal' '" +
                           media.string() + "' >'" + readings.string() + "'")
                              .c_str()),
              0);
    std::istringstream lines(testing::readText(readings));
    const std::regex exifLayout(R"(\d{4}:\d{2}:\d{2} \d{2}:\d{2}:\d{2})");
    int dated = 0;
    int undated = 0;
    for (std::string name, text, seconds; std::getline(lines, name, '|') &&
                                          std::getline(lines, text, '|') &&
                                          std::getline(lines, seconds);) {
        if (MediaScanner::mediaType(name) != MediaType::photo) {
            continue;
        }
        SCOPED_TRACE(name + ": exiftool read '" + text + "'");
        const auto ours = ExifReader::captureDate(media / name);
        // exiftool accepts any separators; the EXIF layout is the rule here.
        if (!std::regex_match(text, exifLayout)) {
            EXPECT_EQ(ours, std::nullopt);
            ++undated;
            continue;
        }
        ASSERT_TRUE(ours.has_value());
        EXPECT_EQ(
            std::to_string(duration_cast<std::chrono::seconds>(ours->time_since_epoch()).count()),
            seconds);
        ++dated;
    }
    EXPECT_EQ(std::pair(dated, undated), std::pair(16, 6))
        << "photo fixtures with and without a date";
}

} // namespace
} // namespace kestrelvane
