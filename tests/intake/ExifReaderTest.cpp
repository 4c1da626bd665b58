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

/// The capture date as seconds since the epoch, as exiftool writes it.
std::optional<std::string> captureSeconds(const fs::path& file) {
    const auto date = ExifReader::captureDate(file);
    return date ? std::optional(std::to_string(
                      duration_cast<std::chrono::seconds>(date->time_since_epoch()).count()))
                : std::nullopt;
}

// The same answers as exiftool on every photo fixture, on several threads at
// once, and silently; no date from a video's own creation time, and nothing
// read from what names no file here (a URL reader would find a photo in it).
TEST(ExifReader, AgreesWithExiftoolOnEveryPhotoFixtureAcrossThreadsAndSilently) {
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
    std::vector<std::pair<fs::path, std::optional<std::string>>> cases{
        {media / "video.mov", std::nullopt},
        {scratch.path() / "missing.jpg", std::nullopt},
        {scratch.path(), std::nullopt},
        {"file://" + (media / "jpeg-original.jpg").string(), std::nullopt},
        {"-", std::nullopt},
    };
    std::istringstream lines(testing::readText(readings));
    const std::regex exifLayout(R"(\d{4}:\d{2}:\d{2} \d{2}:\d{2}:\d{2})");
    std::pair<int, int> datedAndUndated;
    for (std::string name, text, seconds; std::getline(lines, name, '|') &&
                                          std::getline(lines, text, '|') &&
                                          std::getline(lines, seconds);) {
        if (MediaScanner::mediaType(name) == MediaType::photo) {
            // exiftool accepts any separators; the EXIF layout is the rule here.
            const bool dated = std::regex_match(text, exifLayout);
            cases.emplace_back(media / name, dated ? std::optional(seconds) : std::nullopt);
            ++(dated ? datedAndUndated.first : datedAndUndated.second);
        }
    }
    EXPECT_EQ(datedAndUndated, std::pair(16, 6)) << "photo fixtures with and without a date";
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&cases] {
                for (const auto& [input, expected] : cases) {
                    EXPECT_EQ(captureSeconds(input), expected) << input;
                }
            });
        }
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "the reader must stay silent";
}

} // namespace
} // namespace kestrelvane
