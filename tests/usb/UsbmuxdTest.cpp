// The usbmuxd client as a daemon meets it: its packets, its requests and how
// it reads every answer, and its address. What the stream over the tunnel it
// hands out promises is in tests/network/StreamContractTest.cpp.
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "support/CallOutcome.h"
#include "support/Eventually.h"
#include "support/FakeUsbmuxd.h"
#include "support/SystemCallFault.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <variant>

namespace kestrelvane {
namespace {

using testing::dict;
using testing::eventually;
using testing::FakeUsbmuxd;
using testing::outcomeOf;
using Address = UsbmuxdClient::SocketAddress;
using Decoded = UsbmuxdProtocol::Decoded;
using Device = UsbmuxdClient::Device;
using Format = PropertyList::Format;
using Result = UsbmuxdClient::ConnectResult;

// A little-endian header (length, version 1, type 8 for a property list,
// tag), then the body. Decoding waits for a whole header and a whole body,
// leaving a part at the front meanwhile, and reads behind bytes already
// consumed, as in a long read loop.
TEST(UsbmuxdProtocol, EncodesALittleEndianHeaderThenTheBodyAndDecodesOnlyWholePackets) {
    const Bytes body = toBytes("payload");
    const Bytes packet = UsbmuxdProtocol::encode(0xA1B2C3D4, body);
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 16),
              (Bytes{23, 0, 0, 0, 1, 0, 0, 0, 8, 0, 0, 0, 0xD4, 0xC3, 0xB2, 0xA1}));
    EXPECT_EQ(Bytes(packet.begin() + 16, packet.end()), body);
    ReceiveBuffer buffer(Bytes(5, 0xEE));
    buffer.append(ByteView(packet).first(15));
    buffer.consume(5);
    EXPECT_FALSE(UsbmuxdProtocol::decode(buffer));
    buffer.append(ByteView(packet).subspan(15, 5));
    EXPECT_FALSE(UsbmuxdProtocol::decode(buffer));
    EXPECT_EQ(buffer.size(), 20u);
    buffer.append(ByteView(packet).subspan(20));
    buffer.append(UsbmuxdProtocol::encode(9, {}));
    EXPECT_EQ(UsbmuxdProtocol::decode(buffer), (Decoded{0xA1B2C3D4, body}));
    EXPECT_EQ(UsbmuxdProtocol::decode(buffer), (Decoded{9, {}}));
    EXPECT_TRUE(buffer.empty());
}

using PL = PropertyList;

PropertyList device(PropertyList id, const char* serial, std::int64_t product) {
    return dict("DeviceID", std::move(id), "Properties",
                dict("SerialNumber", PL::string(serial), "ProductID", PL::integer(product)));
}

template <class... Entries> PropertyList deviceList(Entries... entries) {
    PropertyList list = PL::array();
    (list.append(std::move(entries)), ...);
    return dict("DeviceList", std::move(list));
}

/// A whole packet with an XML (or binary) body.
Bytes packet(std::uint32_t tag, const PropertyList& body, Format format = Format::xml) {
    return UsbmuxdProtocol::encode(tag, body.serialize(format));
}

/// A reply {MessageType: Result, Number: number}, and what else is given.
template <class... More> PropertyList result(std::int64_t number, More&&... more) {
    return dict("MessageType", PL::string("Result"), "Number", PL::integer(number),
                std::forward<More>(more)...);
}

TEST(UsbmuxdClient, RequestsCarryTheirKeysAndTagsInTheirFormatAndOnlyWholeEntriesAreListed) {
    const PropertyList list = deviceList(
        device(PL::integer(3), "first", 4776), dict("DeviceID", PL::integer(4)),
        dict("DeviceID", PL::integer(5), "Properties", dict()),
        device(PL::string("6"), "text id", 1), device(PL::integer(2), "last", 1),
        // An iPhone synced over Wi-Fi (usbmuxd2, netmuxd): not on the cable.
        dict("DeviceID", PL::integer(7), "Properties",
             dict("SerialNumber", PL::string("wifi"), "ConnectionType", PL::string("Network"))));
    const std::vector<Device> listed{{3, "first", 4776}, {5, "", 0}, {2, "last", 1}};
    FakeUsbmuxd daemon([&list](const FakeUsbmuxd::Request& request) {
        return request.messageType == "ListDevices" ? packet(request.tag, list, request.format)
                                                    : packet(request.tag, result(3));
    });
    UsbmuxdClient client(daemon.address());
    EXPECT_EQ(client.nextTag(), 1u);
    EXPECT_EQ(client.listDevices(), listed);
    {
        // A signal on the way: the request still goes whole.
        const testing::SystemCallFault interrupted(testing::SystemCallFault::Call::send, EINTR, 1);
        EXPECT_EQ(client.connect(42, 9876), Result::connectionRefused());
    }
    EXPECT_EQ(client.nextTag(), 3u);
    // Daemons other than Linux's also read binary requests, and answer in kind.
    EXPECT_EQ(UsbmuxdClient(daemon.address(), UsbmuxdClient::RequestFormat::binary).listDevices(),
              listed);

    // XML unless asked: the Linux daemon reads nothing else. The port goes in network byte order.
    EXPECT_EQ(daemon.requests(),
              (std::vector<FakeUsbmuxd::Request>{{1, Format::xml, "ListDevices"},
                                                 {2, Format::xml, "Connect", 42, 37926},
                                                 {1, Format::binary, "ListDevices"}}));

    const PropertyList none[] = {dict(), dict("DeviceList", PL::string("x")),
                                 deviceList(device(PL::integer(1), "ok", 1), PL::integer(9))};
    for (const auto& reply : none) {
        EXPECT_TRUE(UsbmuxdClient::parseDevices(reply.get()).empty());
    }
}

// Every answer but a tunnel or a device list, and what the caller sees: a
// connect's result, or how a list fails. Either way the client closes the
// socket (unless the daemon hung up first) and stays usable.
TEST(UsbmuxdClient, EveryOtherAnswerIsAResultOrAnErrorThatClosesTheSocketAndLeavesTheClientUsable) {
    Bytes zeroLength = UsbmuxdProtocol::encode(1, {});
    zeroLength[0] = 0;
    // Only a header, announcing more than the limit: refused before it is read.
    Bytes tooLarge = UsbmuxdProtocol::encode(1, {});
    const std::uint32_t declared = UsbmuxdClient::maxReplyBytes + 1;
    for (std::size_t i = 0; i < 4; ++i) {
        tooLarge[i] = static_cast<std::uint8_t>(declared >> (8 * i));
    }
    const std::pair<Bytes, std::variant<Result, std::string>> answers[] = {
        {packet(1, result(2)), Result::badDevice()},
        {packet(1, result(3)), Result::connectionRefused()},
        {packet(1, result(5)), Result::otherError(5, "usbmuxd error 5")},
        {packet(1, result(5, "String", PL::string("device is locked"))),
         Result::otherError(5, "device is locked")},
        {packet(1, result(6, "String", PL::integer(1))), Result::otherError(6, "usbmuxd error 6")},
        {packet(1, dict()), Result::otherError(-1, "no Number in response")},
        {packet(1, dict("Number", PL::string("0"))),
         Result::otherError(-1, "no Number in response")},
        {Bytes{}, "usbmuxd: read returned 0 (0)"}, // the daemon hangs up without answering
        {zeroLength, "usbmuxd: header total length 0 < 16"},
        {tooLarge, "usbmuxd: reply of " + std::to_string(declared) + " bytes is too large"},
        {packet(1, PL::array()), "usbmuxd: response body not a dict"},
        {UsbmuxdProtocol::encode(1, asBytes("not a plist")), "plist: "},
    };
    for (const auto& [reply, expected] : answers) {
        FakeUsbmuxd daemon([bytes = reply](const FakeUsbmuxd::Request&) { return bytes; });
        UsbmuxdClient client(daemon.address());
        for (int request = 1; request <= 2; ++request) {
            if (const auto* connected = std::get_if<Result>(&expected)) {
                EXPECT_EQ(client.connect(1, 9876), *connected);
            } else {
                EXPECT_PRED2(testing::startsWith, outcomeOf([&] { client.listDevices(); }),
                             std::get<std::string>(expected));
            }
            EXPECT_TRUE(reply.empty() || eventually([&] { return daemon.hangUps() == request; }));
        }
        EXPECT_EQ(client.nextTag(), 3u);
    }
}

TEST(UsbmuxdClient, ADaemonThatCannotBeReachedIsASocketErrorAndTakesNoTag) {
    const testing::TemporaryFolder empty;
    const std::string missing = (empty.path() / "usbmuxd").string();
    const std::uint16_t port = TcpListener(0, TcpListener::Scope::loopback).port(); // let go
    const std::pair<Address, std::string> cases[] = {
        {{missing, {}, 0}, "connect(" + missing + ") failed (2)"},
        {{{}, "127.0.0.1", port}, "connect(127.0.0.1:" + std::to_string(port) + ") failed (111)"},
        {{{}, "no-such-host.invalid", 1}, "getaddrinfo(no-such-host.invalid) failed"},
    };
    for (const auto& [address, error] : cases) {
        for (const bool noSocket : {false, true}) { // socket() failing with EMFILE
            std::optional<testing::SystemCallFault> failing;
            if (noSocket) {
                failing.emplace(testing::SystemCallFault::Call::socket, EMFILE);
            }
            UsbmuxdClient client(address);
            const bool resolved = address.host != "no-such-host.invalid";
            EXPECT_PRED2(testing::startsWith, outcomeOf([&] { client.listDevices(); }),
                         "usbmuxd: " + (noSocket && resolved ? "socket() failed (24)" : error));
            EXPECT_EQ(client.nextTag(), 1u) << "no socket, no tag";
        }
    }
}

// The client reads USBMUXD_SOCKET_ADDRESS through this, as every test that
// runs the tool against the simulator shows.
TEST(UsbmuxdClient, SocketAddressIsReadAsLibusbmuxdReadsIt) {
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
}

} // namespace
} // namespace kestrelvane
