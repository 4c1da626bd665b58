#include "KestrelvaneKit/usb/UsbmuxdClient.h"

#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "support/CaughtError.h"
#include "support/DescriptorShortage.h"
#include "support/Eventually.h"
#include "support/FakeUsbmuxd.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace kestrelvane {
namespace {

using testing::eventually;
using testing::FakeUsbmuxd;
using Format = PropertyList::Format;
using Result = UsbmuxdClient::ConnectResult;

PropertyList device(std::int64_t id, const char* serial, std::int64_t product) {
    PropertyList properties = PropertyList::dictionary();
    properties.set("SerialNumber", PropertyList::string(serial));
    properties.set("ProductID", PropertyList::integer(product));
    PropertyList entry = PropertyList::dictionary();
    entry.set("DeviceID", PropertyList::integer(id));
    entry.set("Properties", std::move(properties));
    return entry;
}

PropertyList deviceList(std::vector<PropertyList> entries) {
    PropertyList list = PropertyList::array();
    for (auto& entry : entries) {
        list.append(std::move(entry));
    }
    PropertyList reply = PropertyList::dictionary();
    reply.set("DeviceList", std::move(list));
    return reply;
}

/// Answers every request with the same bytes.
FakeUsbmuxd::Script always(Bytes bytes, bool tunnel = false) {
    return [bytes, tunnel](const FakeUsbmuxd::Request&) {
        return FakeUsbmuxd::Reply{bytes, tunnel};
    };
}

Result connectAnswered(const PropertyList& reply) {
    FakeUsbmuxd daemon(always(FakeUsbmuxd::packet(1, reply)));
    UsbmuxdClient client(daemon.address());
    const Result result = client.connect(1, 9876);
    // Every answer but a tunnel leaves no socket open.
    EXPECT_TRUE(eventually([&] { return daemon.hangUps() == 1; }));
    return result;
}

std::optional<UsbmuxdError> errorOf(const std::function<void()>& call) {
    return testing::errorOf<UsbmuxdError>(call);
}

TEST(UsbmuxdClient, RequestsCarryTheirKeysAsXmlWithTagsCountingAcrossRequests) {
    FakeUsbmuxd daemon([](const FakeUsbmuxd::Request& request) {
        if (request.messageType == "ListDevices") {
            return FakeUsbmuxd::Reply{FakeUsbmuxd::packet(request.tag, deviceList({}))};
        }
        return FakeUsbmuxd::Reply{FakeUsbmuxd::packet(request.tag, FakeUsbmuxd::result(3))};
    });
    UsbmuxdClient client(daemon.address());
    EXPECT_EQ(client.nextTag(), 1u);
    EXPECT_TRUE(client.listDevices().empty());
    EXPECT_EQ(client.connect(42, 9876), Result::connectionRefused());
    EXPECT_EQ(client.connect(43, 2), Result::connectionRefused());
    EXPECT_TRUE(client.listDevices().empty());
    EXPECT_EQ(client.nextTag(), 5u);

    const auto requests = daemon.requests();
    ASSERT_EQ(requests.size(), 4u);
    for (std::size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].tag, i + 1);
        EXPECT_EQ(requests[i].format, Format::xml) << "the Linux daemon reads XML only";
        EXPECT_EQ(requests[i].clientVersion, "Kestrelvane");
        EXPECT_EQ(requests[i].progName, "Kestrelvane");
    }
    EXPECT_EQ(requests[0].messageType, "ListDevices");
    EXPECT_FALSE(requests[0].deviceID);
    EXPECT_EQ(requests[1].messageType, "Connect");
    EXPECT_EQ(requests[1].deviceID, 42);
    EXPECT_EQ(requests[1].portNumber, 37926) << "9876 in network byte order";
    EXPECT_EQ(requests[2].deviceID, 43);
    EXPECT_EQ(requests[2].portNumber, 512);
}

TEST(UsbmuxdClient, BinaryRequestsWhenAskedAndRepliesReadInEitherFormat) {
    std::vector<PropertyList> entries;
    entries.push_back(device(7, "00008030-001A", 0x12a8));
    const PropertyList reply = deviceList(std::move(entries));
    FakeUsbmuxd daemon(always(FakeUsbmuxd::packet(1, reply, Format::binary)));
    UsbmuxdClient client(daemon.address(), UsbmuxdClient::RequestFormat::binary);
    EXPECT_EQ(client.listDevices(),
              (std::vector<UsbmuxdClient::Device>{{7, "00008030-001A", 0x12a8}}));
    EXPECT_EQ(daemon.requests().at(0).format, Format::binary);
}

TEST(UsbmuxdClient, DeviceEntriesWithoutAnIdOrPropertiesAreSkipped) {
    std::vector<PropertyList> entries;
    entries.push_back(device(3, "first", 4776));
    PropertyList noProperties = PropertyList::dictionary();
    noProperties.set("DeviceID", PropertyList::integer(4));
    entries.push_back(std::move(noProperties));
    PropertyList bare = PropertyList::dictionary();
    bare.set("DeviceID", PropertyList::integer(5));
    bare.set("Properties", PropertyList::dictionary());
    entries.push_back(std::move(bare));
    PropertyList textId = device(6, "text id", 1);
    textId.set("DeviceID", PropertyList::string("6"));
    entries.push_back(std::move(textId));
    entries.push_back(device(2, "last", 1));
    const PropertyList reply = deviceList(std::move(entries));
    EXPECT_EQ(UsbmuxdClient::parseDevices(reply.get()),
              (std::vector<UsbmuxdClient::Device>{{3, "first", 4776}, {5, "", 0}, {2, "last", 1}}));

    // No list, a list that is not an array, or any element that is not a
    // dictionary: nothing at all.
    const PropertyList none = PropertyList::dictionary();
    EXPECT_TRUE(UsbmuxdClient::parseDevices(none.get()).empty());
    PropertyList notArray = PropertyList::dictionary();
    notArray.set("DeviceList", PropertyList::string("x"));
    EXPECT_TRUE(UsbmuxdClient::parseDevices(notArray.get()).empty());
    std::vector<PropertyList> mixed;
    mixed.push_back(device(1, "ok", 1));
    mixed.push_back(PropertyList::integer(9));
    const PropertyList mixedReply = deviceList(std::move(mixed));
    EXPECT_TRUE(UsbmuxdClient::parseDevices(mixedReply.get()).empty());
}

TEST(UsbmuxdClient, OnlyTheFirstOfTwoRepliesInOneReadCounts) {
    std::vector<PropertyList> first;
    first.push_back(device(1, "first", 1));
    std::vector<PropertyList> second;
    second.push_back(device(2, "second", 2));
    Bytes both = FakeUsbmuxd::packet(1, deviceList(std::move(first)));
    const Bytes next = FakeUsbmuxd::packet(1, deviceList(std::move(second)));
    both.insert(both.end(), next.begin(), next.end());
    FakeUsbmuxd daemon(always(both));
    UsbmuxdClient client(daemon.address());
    EXPECT_EQ(client.listDevices(), (std::vector<UsbmuxdClient::Device>{{1, "first", 1}}));
}

TEST(UsbmuxdClient, ConnectAnswersMapToResults) {
    EXPECT_EQ(connectAnswered(FakeUsbmuxd::result(2)), Result::badDevice());
    EXPECT_EQ(connectAnswered(FakeUsbmuxd::result(3)), Result::connectionRefused());

    EXPECT_EQ(connectAnswered(FakeUsbmuxd::result(5)), Result::otherError(5, "usbmuxd error 5"));
    PropertyList explained = FakeUsbmuxd::result(5);
    explained.set("String", PropertyList::string("device is locked"));
    EXPECT_EQ(connectAnswered(explained), Result::otherError(5, "device is locked"));
    PropertyList notText = FakeUsbmuxd::result(6);
    notText.set("String", PropertyList::integer(1));
    EXPECT_EQ(connectAnswered(notText), Result::otherError(6, "usbmuxd error 6"));

    const Result noNumber = Result::otherError(-1, "no Number in response");
    EXPECT_EQ(connectAnswered(PropertyList::dictionary()), noNumber);
    PropertyList textNumber = PropertyList::dictionary();
    textNumber.set("Number", PropertyList::string("0"));
    EXPECT_EQ(connectAnswered(textNumber), noNumber);
}

TEST(UsbmuxdClient, ASuccessfulConnectHandsOverTheControlSocketAsTheTunnel) {
    FakeUsbmuxd daemon(always(FakeUsbmuxd::packet(1, FakeUsbmuxd::result(0)), true));
    UsbmuxdClient client(daemon.address());
    const Result result = client.connect(1, 9876);
    ASSERT_EQ(result.kind, Result::Kind::tunneled);
    const int fd = result.fileDescriptor;
    ASSERT_GE(fd, 0);
    const std::string hello = "through the tunnel";
    ASSERT_EQ(::send(fd, hello.data(), hello.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(hello.size()));
    std::string echoed(hello.size(), '\0');
    std::size_t got = 0;
    while (got < echoed.size()) {
        const ssize_t n = ::read(fd, echoed.data() + got, echoed.size() - got);
        ASSERT_GT(n, 0);
        got += static_cast<std::size_t>(n);
    }
    EXPECT_EQ(echoed, hello);
    EXPECT_EQ(daemon.hangUps(), 0);
    ::close(fd);
    EXPECT_TRUE(eventually([&] { return daemon.hangUps() == 1; }));
}

TEST(UsbmuxdClient, FailedConversationsThrowCloseTheSocketAndLeaveTheClientUsable) {
    testing::TemporaryFolder empty;
    const std::string missing = (empty.path() / "usbmuxd").string();
    UsbmuxdClient absent(UsbmuxdClient::SocketAddress{missing, {}, 0});
    EXPECT_EQ(errorOf([&] { absent.listDevices(); }),
              UsbmuxdError::socketError("connect(" + missing + ") failed (2)"));
    EXPECT_EQ(absent.nextTag(), 1u) << "no socket, no tag";

    // The daemon hangs up without answering.
    FakeUsbmuxd silent(always({}));
    UsbmuxdClient client(silent.address());
    EXPECT_EQ(errorOf([&] { client.listDevices(); }),
              UsbmuxdError::socketError("read returned 0 (0)"));
    EXPECT_EQ(client.nextTag(), 2u);

    Bytes zeroLength = UsbmuxdProtocol::encode(1, {});
    zeroLength[0] = 0;
    FakeUsbmuxd broken(always(zeroLength));
    UsbmuxdClient brokenClient(broken.address());
    EXPECT_EQ(errorOf([&] { brokenClient.connect(1, 9876); }),
              UsbmuxdError::malformed("header total length 0 < 16"));
    EXPECT_TRUE(eventually([&] { return broken.hangUps() == 1; }));

    FakeUsbmuxd array(always(FakeUsbmuxd::packet(1, PropertyList::array())));
    UsbmuxdClient arrayClient(array.address());
    EXPECT_EQ(errorOf([&] { arrayClient.listDevices(); }),
              UsbmuxdError::malformed("response body not a dict"));

    FakeUsbmuxd garbage(always(UsbmuxdProtocol::encode(1, asBytes("not a plist"))));
    UsbmuxdClient garbageClient(garbage.address());
    EXPECT_THROW(garbageClient.connect(1, 9876), PropertyList::ParseError);
    EXPECT_TRUE(eventually([&] { return garbage.hangUps() == 1; }));
    EXPECT_THROW(garbageClient.connect(1, 9876), PropertyList::ParseError);
    EXPECT_EQ(garbageClient.nextTag(), 3u);
    EXPECT_EQ(garbage.requests().size(), 2u);
}

TEST(UsbmuxdClient, WithoutADescriptorToSpareEitherKindOfAddressIsASocketError) {
    if (testing::DescriptorShortage::typeChecksNeedDescriptors()) {
        GTEST_SKIP() << "the sanitizer's type checks cannot run without a descriptor";
    }
    UsbmuxdClient overUnix(UsbmuxdClient::SocketAddress{"/nonexistent/usbmuxd", {}, 0});
    UsbmuxdClient overTcp(UsbmuxdClient::SocketAddress{{}, "127.0.0.1", 9});
    std::optional<UsbmuxdError> unixError;
    std::optional<UsbmuxdError> tcpError;
    bool filled = false;
    {
        // Nothing but the calls themselves while short of descriptors.
        const testing::DescriptorShortage shortage;
        filled = shortage.filled();
        unixError = errorOf([&] { overUnix.listDevices(); });
        tcpError = errorOf([&] { overTcp.listDevices(); });
    }
    ASSERT_TRUE(filled);
    EXPECT_EQ(unixError, UsbmuxdError::socketError("socket() failed (24)"));
    EXPECT_EQ(tcpError, UsbmuxdError::socketError("socket() failed (24)"));
}

TEST(UsbmuxdClient, ADaemonAtHostAndPortIsAskedOverTcpAndFailuresThereAreSocketErrors) {
    auto listener = std::make_unique<TcpListener>(0, TcpListener::Scope::loopback);
    const std::uint16_t port = listener->port();
    std::thread daemon([&] {
        auto connection = listener->accept();
        connection->start();
        connection->receive(4096); // the request, whatever it says
        std::vector<PropertyList> one;
        one.push_back(device(7, "TCP0001", 0x12a8));
        connection->send(FakeUsbmuxd::packet(1, deviceList(std::move(one))));
        while (!connection->receive(4096).isComplete) {
        }
    });
    UsbmuxdClient overTcp(UsbmuxdClient::SocketAddress{{}, "127.0.0.1", port});
    EXPECT_EQ(overTcp.listDevices(), (std::vector<UsbmuxdClient::Device>{{7, "TCP0001", 0x12a8}}));
    daemon.join();

    listener.reset(); // nothing listens there any more
    UsbmuxdClient refused(UsbmuxdClient::SocketAddress{{}, "127.0.0.1", port});
    const auto error = errorOf([&] { refused.listDevices(); });
    EXPECT_EQ(error, UsbmuxdError::socketError("connect(127.0.0.1:" + std::to_string(port) +
                                               ") failed (111)"));

    UsbmuxdClient nowhere(UsbmuxdClient::SocketAddress{{}, "no-such-host.invalid", 27015});
    const std::string lookup =
        errorOf([&] { nowhere.listDevices(); }).value_or(UsbmuxdError::noDeviceConnected()).what();
    EXPECT_NE(lookup.find("getaddrinfo(no-such-host.invalid) failed"), std::string::npos) << lookup;
}

TEST(UsbmuxdClient, AReplyAnnouncingMoreThanTheLimitIsRefusedBeforeItIsRead) {
    Bytes header(16, 0);
    const std::uint32_t declared = UsbmuxdClient::maxReplyBytes + 1;
    for (int i = 0; i < 4; ++i) {
        header[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(declared >> (8 * i));
    }
    FakeUsbmuxd daemon(always(header));
    UsbmuxdClient client(daemon.address());
    EXPECT_EQ(
        errorOf([&] { client.listDevices(); }),
        UsbmuxdError::malformed("reply of " + std::to_string(declared) + " bytes is too large"));
}

TEST(UsbmuxdClient, SocketAddressIsReadAsLibusbmuxdReadsIt) {
    using Address = UsbmuxdClient::SocketAddress;
    const Address fallback{"/var/run/usbmuxd", {}, 0};
    EXPECT_EQ(Address::parse(std::nullopt), fallback);
    EXPECT_EQ(Address::parse("UNIX:/tmp/sim/usbmuxd"), (Address{"/tmp/sim/usbmuxd", {}, 0}));
    EXPECT_EQ(Address::parse("127.0.0.1:27015"), (Address{{}, "127.0.0.1", 27015}));
    EXPECT_EQ(Address::parse("localhost:1"), (Address{{}, "localhost", 1}));
    EXPECT_EQ(Address::parse("[::1]:27015"), (Address{{}, "::1", 27015}));
    EXPECT_EQ(Address::parse("[::1]:27015").describe(), "[::1]:27015");
    for (const char* ignored : {"UNIX:", "/tmp/usbmuxd", "host:0", "host:65536", "host:12ab",
                                ":27015", "host:", "unix:/tmp/x"}) {
        EXPECT_EQ(Address::parse(std::string(ignored)), fallback) << ignored;
    }

    ::setenv("USBMUXD_SOCKET_ADDRESS", "UNIX:/run/elsewhere", 1);
    EXPECT_EQ(UsbmuxdClient().address(), (Address{"/run/elsewhere", {}, 0}));
    ::unsetenv("USBMUXD_SOCKET_ADDRESS");
    EXPECT_EQ(UsbmuxdClient().address(), fallback);
}

} // namespace
} // namespace kestrelvane
