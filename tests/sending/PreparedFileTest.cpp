#include "KestrelvaneKit/sending/PreparedFile.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"
#include "support/ScriptedStream.h"
#include "support/SystemCallFault.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;

Bytes concatenated(const std::vector<Bytes>& pieces) {
    Bytes all;
    for (const Bytes& piece : pieces) {
        all.insert(all.end(), piece.begin(), piece.end());
    }
    return all;
}

// Files whose size the kernel does not know in advance (/proc, some network
// file systems) say 0 and then have more: what is sent is everything read,
// with the hash of exactly that.
TEST(PreparedFile, AFileLongerThanItsStatedSizeIsReadToItsEndAndHashedAsRead) {
    const fs::path path = "/proc/self/cmdline";
    std::ifstream in(path, std::ios::binary);
    const Bytes expected{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    ASSERT_EQ(fs::file_size(path), 0u);
    ASSERT_FALSE(expected.empty());

    PreparedFile prepared = PreparedFile::prepare(path, MediaType::video);
    EXPECT_EQ(prepared.header().byteCount, expected.size());
    EXPECT_EQ(prepared.header().sha256, Checksum::sha256Hex(expected));
    auto stream = std::make_shared<testing::ScriptedStream>();
    FrameChannel channel(stream);
    prepared.writeBytes(channel);
    EXPECT_EQ(concatenated(stream->sent), expected);
}

// Hashing a long video can take seconds; a send that ends meanwhile must not
// wait for it.
TEST(PreparedFile, HashingALargeFileStopsWhenTheSendIsStopped) {
    testing::TemporaryFolder folder;
    const fs::path path = folder.path() / "long.mov";
    std::ofstream(path) << "start";
    fs::resize_file(path, PreparedFile::wholeReadLimit + 1); // sparse: costs no disk
    std::stop_source stop;
    stop.request_stop();
    try {
        PreparedFile::prepare(path, MediaType::video, stop.get_token());
        FAIL() << "a stopped send still hashed the whole file";
    } catch (const StreamError& error) {
        EXPECT_TRUE(error.isClosed());
    }
}

TEST(PreparedFile, AnInterruptedReadGoesOnAndAFailedOneNamesTheFileAndTheReason) {
    using testing::SystemCallFault;
    testing::TemporaryFolder folder;
    const fs::path path = folder.path() / "IMG_1.jpg";
    std::ofstream(path) << "pixels";
    {
        const SystemCallFault interrupted(SystemCallFault::Call::pread, EINTR, 1);
        EXPECT_EQ(PreparedFile::prepare(path, MediaType::video).header().sha256,
                  Checksum::sha256Hex(asBytes("pixels")));
    }
    for (const auto call : {SystemCallFault::Call::pread, SystemCallFault::Call::fstat}) {
        const SystemCallFault failing(call, EIO);
        try {
            PreparedFile::prepare(path, MediaType::video);
            ADD_FAILURE() << "a file that cannot be read was prepared";
        } catch (const fs::filesystem_error& error) {
            EXPECT_EQ(error.code(), std::errc::io_error);
            EXPECT_EQ(error.path1(), path);
            EXPECT_NE(std::string(error.what()).find("cannot read file"), std::string::npos)
                << error.what();
        }
    }
}

} // namespace
} // namespace kestrelvane
