#include "KestrelvaneKit/sending/PreparedFile.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "support/CaughtError.h"
#include "support/Eventually.h"
#include "support/ScriptedStream.h"
#include "support/SystemCallFault.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::SystemCallFault;

// Files whose size the kernel does not know in advance (/proc, some network
// file systems) say 0 and then have more: what is sent is everything read,
// with the hash of exactly that.
TEST(PreparedFile, AFileLongerThanItsStatedSizeIsReadToItsEndAndHashedAsRead) {
    const fs::path path = "/proc/self/cmdline";
    const Bytes expected = testing::readBytes(path);
    ASSERT_EQ(fs::file_size(path), 0u);
    ASSERT_FALSE(expected.empty());

    PreparedFile prepared = PreparedFile::prepare(path, MediaType::video);
    EXPECT_EQ(prepared.header().byteCount, expected.size());
    EXPECT_EQ(prepared.header().sha256, Checksum::sha256Hex(expected));
    auto stream = std::make_shared<testing::ScriptedStream>();
    FrameChannel channel(stream);
    prepared.writeBytes(channel);
    EXPECT_EQ(stream->sent, std::vector<Bytes>{expected});
}

/// Bytes this process has read so far, by the kernel's count.
std::uint64_t bytesRead() {
    std::ifstream io("/proc/self/io");
    std::string key;
    std::uint64_t value = 0;
    while (io >> key >> value && key != "rchar:") {
    }
    return value;
}

// Hashing a long video can take seconds; a send that ends meanwhile must not
// wait for it, however far the hashing has got.
TEST(PreparedFile, HashingALargeFileStopsWhenTheSendIsStopped) {
    const testing::TemporaryFolder folder;
    const fs::path path = testing::writeFile(folder.path() / "long.mov", "start");
    fs::resize_file(path, std::uint64_t{16} << 30); // sparse: costs no disk
    std::stop_source stop;
    const std::uint64_t before = bytesRead();
    auto hashing = std::async(std::launch::async, [&] {
        return testing::throwsClosed(
            [&] { PreparedFile::prepare(path, MediaType::video, stop.get_token()); });
    });
    EXPECT_TRUE(testing::eventually(
        [&] { return bytesRead() - before > 3 * PreparedFile::streamChunkBytes; }));
    stop.request_stop();
    EXPECT_TRUE(hashing.get());
}

TEST(PreparedFile, AnInterruptedReadGoesOnAndAFailedOneNamesTheFileAndTheReason) {
    const testing::TemporaryFolder folder;
    const fs::path path = testing::writeFile(folder.path() / "IMG_1.jpg", "pixels");
    {
        const SystemCallFault interrupted(SystemCallFault::Call::pread, EINTR, 1);
        EXPECT_EQ(PreparedFile::prepare(path, MediaType::video).header().sha256,
                  Checksum::sha256Hex(asBytes("pixels")));
    }
    for (const auto call : {SystemCallFault::Call::pread, SystemCallFault::Call::fstat}) {
        const SystemCallFault failing(call, EIO);
        const auto error = testing::errorOf<fs::filesystem_error>(
            [&] { PreparedFile::prepare(path, MediaType::video); });
        ASSERT_TRUE(error) << "a file that cannot be read was prepared";
        EXPECT_EQ(error->code(), std::errc::io_error);
        EXPECT_EQ(error->path1(), path);
        EXPECT_NE(std::string(error->what()).find("cannot read file"), std::string::npos);
    }
}

} // namespace
} // namespace kestrelvane
