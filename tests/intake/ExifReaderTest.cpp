#include "KestrelvaneKit/intake/ExifReader.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;

const fs::path media = fs::path(KV_FIXTURES_DIR) / "media";

/// Every test here runs as on a computer in Paris (UTC+01:00 in winter,
/// +02:00 in summer), set before the reader first looks at the time zone.
class ParisTime : public ::testing::Environment {
public:
    void SetUp() override {
        ::setenv("TZ", "Europe/Paris", 1);
        ::tzset();
    }
};
[[maybe_unused]] const auto* const parisTime = ::testing::AddGlobalTestEnvironment(new ParisTime);

std::optional<std::string> captureDateText(const fs::path& file) {
    const auto date = ExifReader::captureDate(file);
    if (!date) {
        return std::nullopt;
    }
    return Rfc3339::format(*date);
}

/// The fixtures with a DateTimeOriginal, and that instant in UTC.
const std::map<std::string, std::string>& datedFixtures() {
    static const std::map<std::string, std::string> dated{
        {"jpeg-original.jpg", "2024-03-05T13:07:09Z"},  // 14:07:09 at +01:00
        {"heic-original.heic", "2022-07-04T07:15:30Z"}, // 09:15:30 at +02:00
        {"heic-grid.heic", "2021-11-30T17:45:00Z"},     // a grid exiv2 alone cannot read
        {"png-exif-chunk.png", "2023-12-31T22:59:58Z"},
        {"png-raw-profile.png", "2020-02-29T11:00:00Z"},
        {"tiff-original.tiff", "2021-06-15T06:30:00Z"},
        {"dng-original.dng", "2019-11-11T10:11:11Z"},
        // Raw formats: TIFF bodies, Canon's and Olympus's and Panasonic's
        // variants of the header, Fujifilm's wrapper and Canon's ISO media.
        {"cr2-original.cr2", "2018-01-02T02:04:05Z"},
        {"nef-original.nef", "2017-08-20T08:00:00Z"},
        {"arw-original.arw", "2016-12-24T17:30:00Z"},
        {"orf-original.orf", "2015-04-01T07:09:09Z"},
        {"rw2-original.rw2", "2014-10-27T11:00:00Z"},
        {"pef-original.pef", "2013-06-30T21:59:59Z"},
        {"3fr-original.3fr", "2012-02-28T23:00:01Z"},
        {"raf-original.raf", "2011-07-14T12:14:14Z"},
        {"cr3-original.cr3", "2010-03-28T10:00:00Z"},
    };
    return dated;
}

TEST(ExifReader, ReadsDateTimeOriginalAsLocalTimeFromEveryPhotoFormat) {
    for (const auto& [name, expected] : datedFixtures()) {
        SCOPED_TRACE(name);
        EXPECT_EQ(captureDateText(media / name), expected);
    }
}

TEST(ExifReader, NoOtherDateAndNothingUnreadableGivesADate) {
    testing::TemporaryFolder folder;
    const fs::path inputs[] = {
        media / "jpeg-digitized-only.jpg", // only the digitized and the TIFF date
        media / "jpeg-dashed-date.jpg",    // '2024-03-05 14:07:09'
        media / "png-without-exif.png",
        media / "video.mov", // has a creation time of its own
        media / "jpeg-truncated.jpg",
        media / "jpeg-corrupt-exif.jpg",
        media / "not-an-image.jpg",
        folder.path() / "missing.jpg",
        folder.path(),
    };
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    for (const fs::path& input : inputs) {
        EXPECT_EQ(captureDateText(input), std::nullopt) << input;
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "the reader must stay silent";
}

std::string base64(const std::string& bytes) {
    static constexpr char digits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        std::uint32_t group = 0;
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        for (std::size_t k = 0; k < 3; ++k) {
            group = (group << 8) | (k < n ? static_cast<unsigned char>(bytes[i + k]) : 0u);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            out += k <= n ? digits[(group >> (18 - 6 * k)) & 63] : '=';
        }
    }
    return out;
}

TEST(ExifReader, PathsAreFileNamesNeverStreamsOrInlineData) {
    std::ifstream in(media / "jpeg-original.jpg", std::ios::binary);
    const std::string jpeg{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    ASSERT_FALSE(jpeg.empty());
    // Relative paths that name no file here, though a URL reader would find a photo in them.
    for (const fs::path& path :
         {fs::path("data://image/jpeg;base64," + base64(jpeg)),
          fs::path("file://" + (media / "jpeg-original.jpg").string()), fs::path("-")}) {
        EXPECT_EQ(captureDateText(path), std::nullopt) << path;
    }
}

TEST(ExifReader, KeepsTheTimeZoneItFoundAtFirstUse) {
    ASSERT_EQ(captureDateText(media / "jpeg-original.jpg"), "2024-03-05T13:07:09Z");
    const std::unique_ptr<icu::TimeZone> before(icu::TimeZone::createDefault());
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("America/New_York"));
    const auto afterChange = captureDateText(media / "jpeg-original.jpg");
    icu::TimeZone::adoptDefault(before->clone());
    EXPECT_EQ(afterChange, "2024-03-05T13:07:09Z");
}

TEST(ExifReader, ManyThreadsReadingAtOnceAgree) {
    std::vector<std::jthread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&] {
            for (int round = 0; round < 10; ++round) {
                for (const auto& [name, expected] : datedFixtures()) {
                    if (captureDateText(media / name) != expected) {
                        ++wrong;
                    }
                }
                if (ExifReader::captureDate(media / "jpeg-dashed-date.jpg")) {
                    ++wrong;
                }
            }
        });
    }
    threads.clear();
    EXPECT_EQ(wrong.load(), 0);
}

/// exiftool's own reading of DateTimeOriginal in the first image's EXIF
/// directory, by file name: the text, and that text as seconds since the epoch
/// in this process's time zone.
struct OracleReading {
    std::string text;
    std::string epochSeconds;
};

std::optional<std::map<std::string, OracleReading>> readWithExiftool(const fs::path& folder) {
    const std::string command =
        "exiftool -q -q -f -d %s -p "
        "'$FileName|$ExifIFD:DateTimeOriginal#|$ExifIFD:DateTimeOriginal' '" +
        folder.string() + "' 2>/dev/null";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    if (!pipe) {
        return std::nullopt;
    }
    std::string output;
    char buffer[4096];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, pipe.get())) > 0;) {
        output.append(buffer, got);
    }
    std::map<std::string, OracleReading> readings;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const auto first = line.find('|');
        const auto second = line.find('|', first + 1);
        if (first == std::string::npos || second == std::string::npos) {
            continue;
        }
        readings[line.substr(0, first)] = {line.substr(first + 1, second - first - 1),
                                           line.substr(second + 1)};
    }
    return readings;
}

TEST(ExifReader, AgreesWithExiftoolOnEveryPhotoFixture) {
    // scripts/bootstrap installs exiftool: without it this check is lost, not skipped.
    ASSERT_EQ(std::system("exiftool -ver >/dev/null 2>&1"), 0)
        << "exiftool is missing (Debian package libimage-exiftool-perl)";
    const auto readings = readWithExiftool(media);
    ASSERT_TRUE(readings.has_value());
    const std::regex exifLayout(R"(\d{4}:\d{2}:\d{2} \d{2}:\d{2}:\d{2})");
    int compared = 0;
    for (const auto& entry : fs::directory_iterator(media)) {
        const std::string name = entry.path().filename().string();
        if (MediaScanner::mediaType(entry.path()) != MediaType::photo) {
            continue;
        }
        SCOPED_TRACE(name);
        ASSERT_TRUE(readings->contains(name)) << "exiftool did not list it";
        const OracleReading& oracle = readings->at(name);
        const auto ours = ExifReader::captureDate(entry.path());
        // exiftool accepts any separators; the EXIF layout is the rule here.
        if (!std::regex_match(oracle.text, exifLayout)) {
            EXPECT_EQ(ours, std::nullopt) << "exiftool read '" << oracle.text << "'";
            continue;
        }
        ASSERT_TRUE(ours.has_value()) << "exiftool read '" << oracle.text << "'";
        const auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(ours->time_since_epoch()).count();
        EXPECT_EQ(std::to_string(seconds), oracle.epochSeconds);
        ++compared;
    }
    EXPECT_EQ(compared, static_cast<int>(datedFixtures().size()));
}

} // namespace
} // namespace kestrelvane
