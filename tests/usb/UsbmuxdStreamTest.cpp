// What is particular to the usbmuxd tunnel: owning its descriptor, and how a
// send cut off by its own close ends. What every stream promises is in
// tests/network/StreamContractTest.cpp.
#include "KestrelvaneKit/usb/UsbmuxdStream.h"

#include "support/BlockedThread.h"
#include "support/CallOutcome.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

using testing::outcomeOf;

bool isOpenDescriptor(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

TEST(UsbmuxdStream, ReleasesItsDescriptorOnlyWhenClosedAndOnlyOnce) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    UsbmuxdStream stream(fds[0]);
    stream.send(asBytes("x"));
    EXPECT_TRUE(isOpenDescriptor(fds[0])) << "released after a call on an open stream";
    stream.close();
    EXPECT_FALSE(isOpenDescriptor(fds[0]));
    // A descriptor opened since, perhaps under the same number, survives a second close.
    int reused[2];
    ASSERT_EQ(::pipe(reused), 0);
    stream.close();
    EXPECT_TRUE(isOpenDescriptor(reused[0]) && isOpenDescriptor(reused[1]));
    ::close(reused[0]);
    ::close(reused[1]);
    ::close(fds[1]);

    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    auto waited = std::make_shared<UsbmuxdStream>(fds[0]);
    auto receiving = testing::callUntilBlockedIn(
        {SYS_read}, [waited] { return outcomeOf([&] { waited->receive(1); }); });
    ASSERT_TRUE(receiving.blocked);
    waited->close();
    EXPECT_EQ(receiving.result.get(), "closed");
    EXPECT_FALSE(isOpenDescriptor(fds[0])) << "the receive woken by close() keeps it";
    ::close(fds[1]);
}

TEST(UsbmuxdStream, ASendCutOffByItsOwnCloseEndsClosedRatherThanAsASocketError) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    auto stream = std::make_shared<UsbmuxdStream>(fds[0]);
    // The socket is full before the send begins, so none of it is written when close() comes.
    const int flags = ::fcntl(fds[0], F_GETFL);
    ::fcntl(fds[0], F_SETFL, flags | O_NONBLOCK);
    const Bytes filler(65536);
    for (const std::size_t size : {filler.size(), std::size_t{1}}) {
        while (::send(fds[0], filler.data(), size, MSG_NOSIGNAL) > 0) {
        }
    }
    ::fcntl(fds[0], F_SETFL, flags);
    auto sending = testing::callUntilBlockedIn(
        {SYS_sendto}, [stream] { return outcomeOf([&] { stream->send(asBytes("x")); }); });
    ASSERT_TRUE(sending.blocked);
    stream->close();
    EXPECT_EQ(sending.result.get(), "closed");
    ::close(fds[1]);
}

} // namespace
} // namespace kestrelvane
