// What `kestrelvane send` shows, driven by a clock the test sets: the live
// line of a terminal (with bytes on their way, rate and time left) and the
// plain lines written when the output is not a terminal.
#include "SendReporter.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

namespace kestrelvane::cli {
namespace {

constexpr std::uint64_t mib = 1'048'576;

/// A reporter writing into memory, without its timer, at a time the test sets.
class Reported {
public:
    explicit Reported(SendReporter::Style style)
        : out_(::open_memstream(&buffer_, &size_)),
          reporter_(std::make_unique<SendReporter>(
              style, out_, [this] { return now_; }, std::chrono::milliseconds(0))) {}
    ~Reported() {
        reporter_.reset();
        std::fclose(out_);
        std::free(buffer_);
    }
    Reported(const Reported&) = delete;
    Reported& operator=(const Reported&) = delete;

    SendReporter* operator->() const { return reporter_.get(); }
    void at(double seconds) { now_ = seconds; }

    /// Everything written so far.
    std::string text() {
        std::fflush(out_);
        return std::string(buffer_, size_);
    }
    /// What follows the live line's last drawing or clearing: the line
    /// itself while it is shown.
    std::string liveLine() {
        const std::string all = text();
        const auto drawn = all.rfind("\r\033[K");
        return drawn == std::string::npos ? "" : all.substr(drawn + 4);
    }

private:
    char* buffer_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* out_;
    double now_ = 100;
    std::unique_ptr<SendReporter> reporter_;
};

TEST(SendReporter, TerminalLiveLineFollowsTheBytesSentWithRateAndTimeLeft) {
    Reported reported(SendReporter::Style::terminal);
    reported->start(2, 10 * mib, "desk:9876", std::string("Trip"));
    EXPECT_EQ(reported.liveLine(), "0/2 files, 0.0 of 10.0 MB, 0:00");
    reported.at(100.4);
    reported->sent(100); // the session header: no rate from that yet
    EXPECT_EQ(reported.liveLine(), "0/2 files, 0.0 of 10.0 MB, 0:00");

    // 4 MiB of the first file out after 2 s: 2 MB/s, 6 MiB left, 3 s.
    reported.at(102);
    reported->sent(4 * mib);
    EXPECT_EQ(reported.liveLine(), "0/2 files, 4.0 of 10.0 MB, 0:02, 2.0 MB/s, 0:03 left");

    // Writes come often; the line is redrawn at a bounded rate.
    const std::size_t written = reported.text().size();
    reported->sent(1);
    reported.at(102 + SendReporter::minRedrawSeconds / 2);
    reported->sent(1);
    EXPECT_EQ(reported.text().size(), written);

    reported.at(105);
    reported->acknowledged("a.jpg", true, std::nullopt, 5 * mib);
    EXPECT_NE(reported.text().find("\r\033[Ksaved   a.jpg\n"), std::string::npos);
    EXPECT_EQ(reported.liveLine(), "1/2 files, 5.0 of 10.0 MB, 0:05, 1.0 MB/s, 0:05 left");

    // Frames and resends can take the count past the batch: shown within it.
    reported.at(110);
    reported->sent(6 * mib);
    EXPECT_EQ(reported.liveLine(), "1/2 files, 10.0 of 10.0 MB, 0:10, 1.0 MB/s, 0:00 left");

    reported->acknowledged("b.mov", false, std::string("checksum mismatch"), 5 * mib);
    reported->finish({.files = 2,
                      .saved = 1,
                      .bytesSaved = 5 * mib,
                      .seconds = 10,
                      .unsaved = {{"b.mov", "/v/b.mov", "checksum mismatch"}},
                      .exitStatus = 1});
    EXPECT_EQ(reported.liveLine(), "1 of 2 saved, 5.0 MB in 0:10 (0.5 MB/s)\n"
                                   "Not saved:\n"
                                   "  /v/b.mov: checksum mismatch\n");
    reported.at(120);
    reported->sent(mib); // after the end nothing is drawn any more
    EXPECT_EQ(reported.liveLine().find("files,"), std::string::npos);
}

TEST(SendReporter, TimeLeftIsTheBytesLeftAtTheRateSoFarInMinutesAndSeconds) {
    Reported reported(SendReporter::Style::terminal);
    reported->start(1, 1000 * mib, "usb", std::nullopt);
    reported.at(100 + 75);
    reported->sent(75 * mib); // 1 MB/s for 1:15, 925 MiB to go
    EXPECT_EQ(reported.liveLine(), "0/1 files, 75.0 of 1000.0 MB, 1:15, 1.0 MB/s, 15:25 left");
    EXPECT_EQ(minutesAndSeconds(3599.6), "60:00");
    EXPECT_EQ(minutesAndSeconds(-3), "0:00");
}

TEST(SendReporter, PlainOutputIsOneLinePerEventWithoutALiveLine) {
    Reported reported(SendReporter::Style::plain);
    reported->start(2, 3 * mib, "127.0.0.1:9876", std::nullopt);
    reported.at(101);
    reported->sent(3 * mib);
    reported->acknowledged("a.jpg", true, std::nullopt, mib);
    reported->acknowledged("b.jpg", false, std::string("could not open temp file"), 2 * mib);
    reported.at(105);
    reported->finish({.files = 2,
                      .saved = 1,
                      .bytesSaved = mib,
                      .seconds = 5,
                      .unsaved = {{"b.jpg", "/p/b.jpg", "could not open temp file"}},
                      .exitStatus = 1});
    EXPECT_EQ(reported.text(), "Sending 2 files (3.0 MB) to 127.0.0.1:9876\n"
                               "saved   a.jpg\n"
                               "FAILED  b.jpg: could not open temp file\n"
                               "1 of 2 saved, 1.0 MB in 0:05 (0.2 MB/s)\n"
                               "Not saved:\n"
                               "  /p/b.jpg: could not open temp file\n");
}

} // namespace
} // namespace kestrelvane::cli
