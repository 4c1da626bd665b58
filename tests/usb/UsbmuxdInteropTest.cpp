// Our USB transport against code written elsewhere: the Debian usbmuxd
// daemon, and libusbmuxd's inetcat pointed at our simulator.
#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "support/CallOutcome.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/FakeUsbmuxd.h"
#include "support/SimulatorProcess.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

using testing::ChildProcess;
using testing::TemporaryFolder;
using Result = UsbmuxdClient::ConnectResult;

TEST(UsbmuxdInterop, TheDebianDaemonWithoutPhonesListsNoneAndKnowsNoDevice) {
    const auto usbmuxd = ChildProcess::locate("usbmuxd");
    const auto unshare = ChildProcess::locate("unshare");
    if (!usbmuxd || !unshare) {
        GTEST_SKIP() << "needs usbmuxd and unshare (packages usbmuxd, util-linux)";
    }
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give usbmuxd a private /var/run";
    }
    // The daemon's socket path is fixed; in a private mount namespace its
    // /var/run is our folder, so the host's daemon is never touched.
    TemporaryFolder run;
    ChildProcess daemon({*unshare, "-m", "--propagation", "private", "sh", "-c",
                         "mount --bind \"$0\" /var/run && exec \"$1\" -f -U root",
                         run.path().string(), *usbmuxd});
    const UsbmuxdClient::SocketAddress address{(run.path() / "usbmuxd").string(), {}, 0};
    bool exited = false;
    const bool listening = testing::eventually([&] {
        exited = daemon.waitFor(std::chrono::milliseconds(0)).has_value();
        return exited ||
               testing::outcomeOf([&] { UsbmuxdClient(address).listDevices(); }) == "returned";
    });
    if (exited) {
        GTEST_SKIP() << "usbmuxd could not run in a private mount namespace (exit "
                     << daemon.waitFor().value_or(-1) << ")";
    }
    ASSERT_TRUE(listening) << "usbmuxd never opened its socket";

    UsbmuxdClient client(address);
    EXPECT_TRUE(client.listDevices().empty());
    EXPECT_EQ(client.connect(1, 9876), Result::badDevice());
    EXPECT_TRUE(client.listDevices().empty()) << "still answering after a connect";

    // Why requests are XML here: this daemon drops a binary request without
    // a word, and answers the XML one behind it on the same socket.
    testing::Conversation conversation(address.path);
    const PropertyList request = testing::dict("MessageType", PropertyList::string("ListDevices"));
    conversation.send(1, request, PropertyList::Format::binary);
    conversation.send(2, request, PropertyList::Format::xml);
    const auto reply = conversation.receive();
    EXPECT_EQ(reply.tag, 2u);
    EXPECT_EQ(reply.format, PropertyList::Format::xml);
    EXPECT_TRUE(PropertyList::arrayAt(reply.body.get(), "DeviceList"));
    EXPECT_EQ(daemon.terminate(), 0);
}

TEST(UsbmuxdInterop, InetcatCarriesARealTransferThroughTheSimulatorsTunnel) {
    const auto inetcat = ChildProcess::locate("inetcat");
    if (!inetcat) {
        GTEST_SKIP() << "needs inetcat (package libusbmuxd-tools)";
    }
    TemporaryFolder source, phoneFolder;
    testing::SimulatorProcess simulator(
        {"OTHER,1,none", "INETCAT01,0x12a8,folder=" + phoneFolder.path().string()});

    // inetcat's standard input and output are one end of a socket pair; the
    // sending engine runs on the other.
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    ChildProcess cat({*inetcat, "-u", "INETCAT01", "9876"}, simulator.environment(), pair[1],
                     pair[1]);
    ::close(pair[1]);

    // Small files: inetcat 2.0.2 has been seen to lose data of megabyte bursts
    // on its way to the daemon's socket; its own limit, not the tunnel's.
    const std::vector batch{
        testing::writeFile(source.path() / "IMG_0001.JPG", testing::pattern(20'000, 1)),
        testing::writeFile(source.path() / "IMG_0002.PNG", testing::pattern(7'000, 2))};
    FrameChannel channel(std::make_shared<UsbmuxdStream>(FileDescriptor(pair[0])));
    channel.start();
    const auto acks = TransferClient().send(batch, channel, SessionHeader{});
    channel.cancel();

    ASSERT_EQ(acks.size(), 2u);
    for (const auto& ack : acks) {
        EXPECT_EQ(ack.status, Ack::Status::ok) << ack.name << ": " << ack.message.value_or("");
    }
    for (const auto& path : batch) {
        EXPECT_TRUE(testing::readBytes(phoneFolder.path() / path.filename()) ==
                    testing::readBytes(path))
            << path;
    }
    EXPECT_TRUE(cat.waitFor().has_value()) << "inetcat kept running after its input ended";
}

} // namespace
} // namespace kestrelvane
