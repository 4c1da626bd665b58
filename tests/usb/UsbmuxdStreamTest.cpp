// What is particular to the usbmuxd tunnel: taking it over from the client,
// and owning its descriptor. What every stream promises is in
// tests/network/StreamContractTest.cpp.
#include "KestrelvaneKit/usb/UsbmuxdStream.h"

#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "support/BlockedThread.h"
#include "support/CallOutcome.h"
#include "support/Eventually.h"
#include "support/FakeUsbmuxd.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

using testing::FakeUsbmuxd;
using testing::outcomeOf;

bool isOpenDescriptor(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

TEST(UsbmuxdStream, TakesOverTheControlSocketThatASuccessfulConnectHandsOut) {
    // The daemon answers "connected" and then echoes whatever comes.
    FakeUsbmuxd daemon([](const FakeUsbmuxd::Request& request) {
        return FakeUsbmuxd::Reply{FakeUsbmuxd::packet(request.tag, FakeUsbmuxd::result(0)), true};
    });
    const auto connected = UsbmuxdClient(daemon.address()).connect(1, 9876);
    ASSERT_EQ(connected.kind, UsbmuxdClient::ConnectResult::Kind::tunneled);
    UsbmuxdStream stream(connected.fileDescriptor);
    stream.send(asBytes("through the tunnel"));
    std::string echoed;
    while (echoed.size() < 18) {
        echoed += asText(stream.receive(18));
    }
    EXPECT_EQ(echoed, "through the tunnel");
    EXPECT_EQ(daemon.hangUps(), 0);
    stream.close();
    EXPECT_TRUE(testing::eventually([&] { return daemon.hangUps() == 1; }));
}

TEST(UsbmuxdStream, ReleasesItsDescriptorOnlyWhenClosedAndOnlyOnce) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    UsbmuxdStream stream(fds[0]);
    stream.send(asBytes("x"));
    EXPECT_TRUE(isOpenDescriptor(fds[0])) << "released after a call on an open stream";
    ::close(fds[1]);                                            // the phone hangs up
    EXPECT_EQ(outcomeOf([&] { stream.send({}); }), "returned"); // nothing to write, nothing to fail
    EXPECT_EQ(outcomeOf([&] { stream.send(asBytes("lost")); }),
              "usbmuxd: write failed (" + std::to_string(EPIPE) + ")");
    stream.close();
    EXPECT_FALSE(isOpenDescriptor(fds[0]));
    // A descriptor opened since, perhaps under the same number, survives a second close.
    int reused[2];
    ASSERT_EQ(::pipe(reused), 0);
    stream.close();
    EXPECT_TRUE(isOpenDescriptor(reused[0]) && isOpenDescriptor(reused[1]));
    ::close(reused[0]);
    ::close(reused[1]);

    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    auto waited = std::make_shared<UsbmuxdStream>(fds[0]);
    auto receiving = testing::callUntilBlockedIn(
        {SYS_read}, [waited] { return outcomeOf([&] { waited->receive(1); }); });
    ASSERT_TRUE(receiving.blocked);
    waited->close();
    EXPECT_EQ(receiving.result.get(), "closed");
    // Released by the receive on its way out.
    EXPECT_FALSE(isOpenDescriptor(fds[0]));
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
