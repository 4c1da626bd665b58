// The progress `kestrelvane send` shows on a terminal.
#include "SendReporter.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace kestrelvane::cli {
namespace {

constexpr std::uint64_t mib = 1'048'576;

TEST(SendReporter, TimeLeftIsTheBytesStillToSendAtTheRateSoFar) {
    std::FILE* out = std::tmpfile();
    double now = 100;
    {
        SendReporter reporter(
            SendReporter::Style::terminal, out, [&] { return now; }, std::chrono::milliseconds(0));
        reporter.start(2, 1000 * mib, "usb", std::nullopt);
        now = 175;
        reporter.sent(75 * mib); // 1 MB/s for 1:15, 925 MiB to go
    }
    std::string written(4096, '\0');
    std::rewind(out);
    written.resize(std::fread(written.data(), 1, written.size(), out));
    std::fclose(out);
    EXPECT_NE(written.find("\r\033[K0/2 files, 75.0 of 1000.0 MB, 1:15, 1.0 MB/s, 15:25 left"),
              std::string::npos)
        << written;
}

} // namespace
} // namespace kestrelvane::cli
