// The sending engine against the receiving engine saving into a folder, over
// an in-memory connection that hands the receiver one byte at a time (a real
// socket is in tests/network/TransferOverTcpTest.cpp).
#include "support/EngineSession.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

TEST(TransferEndToEnd, EveryFileArrivesInItsAlbumByteForByteOrComesBackWithTheSaversError) {
    TemporaryFolder source, destination, scratch;
    const std::vector<fs::path> files{writeFile(source.path() / "IMG_0001.HEIC", pattern(70'000)),
                                      writeFile(source.path() / "empty.jpg", Bytes{}),
                                      writeFile(source.path() / "full.jpg", pattern(10, 2)),
                                      writeFile(source.path() / "IMG_0002.jpg", pattern(1, 3))};
    EngineSession session({.receiverReceives = ReceiveMode::oneByteAtATime});
    ASSERT_TRUE(session.sendToFolder(files, destination.path(), scratch.path(),
                                     {.failing = {{2, "disk full"}}},
                                     SessionHeader{.albumName = "Holiday 2024"}));
    EXPECT_EQ(session.returned.size(), files.size());
    EXPECT_EQ(session.reportedOk(),
              (std::set<std::string>{"IMG_0001.HEIC", "IMG_0002.jpg", "empty.jpg"}));
    EXPECT_NE(std::ranges::find(
                  session.returned,
                  Ack{.name = "full.jpg", .status = Ack::Status::error, .message = "disk full"}),
              session.returned.end());
    EXPECT_EQ(filesUnder(destination.path()),
              (std::vector<std::string>{"Holiday 2024/IMG_0001.HEIC", "Holiday 2024/IMG_0002.jpg",
                                        "Holiday 2024/empty.jpg"}));
    EXPECT_EQ(filesNotAsIn(destination.path() / "Holiday 2024", source.path()),
              std::vector<std::string>{});
    EXPECT_TRUE(fs::is_empty(scratch.path()));
}

} // namespace
} // namespace kestrelvane
