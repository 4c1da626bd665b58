// A receiver that hangs up its side of a real socket and stops reading, while
// the sender still has bytes to write: the send must end, not wait for ever
// on a full socket buffer.
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;

TEST(HalfClosedReceiver, EndsTheSendInsteadOfLeavingTheWriterBlocked) {
    const auto previousSink = KVLog::setSink(std::make_shared<KVLog::MemorySink>());
    testing::TemporaryFolder folder;
    std::vector<fs::path> files;
    for (const char* name : {"a.mov", "b.mov"}) {
        files.push_back(folder.path() / name);
        std::ofstream(files.back(), std::ios::binary) << std::string(16 << 20, 'v');
    }
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    FrameChannel channel(std::make_shared<UsbmuxdStream>(fds[0]));
    auto sent = std::async(std::launch::async, [&] {
        try {
            TransferClient().send(files, channel, SessionHeader{});
            return std::string("returned");
        } catch (const std::exception& error) {
            return std::string(error.what());
        }
    });
    // The receiver takes nothing, says it is done, and keeps its socket open.
    ::shutdown(fds[1], SHUT_WR);
    const bool ended = sent.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    if (!ended) {
        channel.cancel(); // so that the test itself can end
    }
    EXPECT_TRUE(ended) << "the sender stayed blocked writing to a receiver that hung up";
    EXPECT_NE(sent.get(), "returned") << "a batch that was not read cannot have succeeded";
    ::close(fds[1]);
    KVLog::setSink(previousSink);
}

} // namespace
} // namespace kestrelvane
