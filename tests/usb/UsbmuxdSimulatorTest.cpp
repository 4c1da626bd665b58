// The usbmuxd simulator binary as the client and libusbmuxd's programs meet
// it: listing, connecting, its replies and events, and its tunnels. A whole
// batch over its tunnel is in UsbmuxdInteropTest (through inetcat) and the
// tool's tests.
#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "KestrelvaneKit/wire/FrameChannel.h"
#include "KestrelvaneKit/wire/WireMessage.h"
#include "support/CaughtError.h"
#include "support/ChildProcess.h"
#include "support/FakeUsbmuxd.h"
#include "support/Loopback.h"
#include "support/SimulatorProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <tuple>

namespace kestrelvane {
namespace {

using testing::ChildProcess;
using testing::Conversation;
using testing::SimulatorProcess;
using Format = PropertyList::Format;
using Result = UsbmuxdClient::ConnectResult;

PropertyList message(const char* type) {
    return testing::dict("MessageType", PropertyList::string(type));
}

/// How many memory mappings process `pid` has. A thread's stack and its guard
/// page stay mapped after it ends until it is joined; a joined thread's stack
/// is reused by the next one.
std::size_t mappingsOf(pid_t pid) {
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    return static_cast<std::size_t>(
        std::count(std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>(), '\n'));
}

// Replies carry the request's format and tag, and the daemon's keys.
TEST(UsbmuxdSimulator, AnswersAsUsbmuxdWouldAndListenersHearOfPhonesComingAndGoing) {
    SimulatorProcess simulator({"LISTENING,1,test", "QUIET,2,none", "GONE,3,vanished"},
                               {"--buid", "THE-BUID"});
    for (const Format format : {Format::xml, Format::binary}) {
        Conversation conversation(simulator.socketPath());
        // One socket carries several requests, as with the real daemon; this
        // one arrives in two pieces, the header and a little more first.
        conversation.send(41, message("ListDevices"), format, 20);
        const auto list = conversation.receive();
        EXPECT_EQ(list.tag, 41u);
        EXPECT_EQ(list.format, format);
        EXPECT_TRUE(PropertyList::arrayAt(list.body.get(), "DeviceList"));
        conversation.send(42, message("ReadBUID"), format);
        EXPECT_EQ(PropertyList::stringAt(conversation.receive().body.get(), "BUID"), "THE-BUID");
        conversation.send(43, message("NoSuchRequest"), format);
        EXPECT_EQ(PropertyList::integerAt(conversation.receive().body.get(), "Number"), 1);
    }
    UsbmuxdClient client(simulator.address());
    const auto devices = client.listDevices();
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(client.connect(devices[0].id, 22), Result::connectionRefused());
    EXPECT_EQ(client.connect(devices[1].id, 9876), Result::connectionRefused());
    EXPECT_EQ(client.connect(devices[2].id, 9876), Result::badDevice());
    EXPECT_EQ(client.connect(999, 9876), Result::badDevice());

    Conversation listener(simulator.socketPath());
    listener.send(5, message("Listen"));
    EXPECT_EQ(PropertyList::integerAt(listener.receive().body.get(), "Number"), 0);
    /// The next event: its type, and the phone's serial or device number.
    const auto next = [&] {
        const auto event = listener.receive();
        EXPECT_EQ(event.tag, 0u);
        plist_t properties = PropertyList::dictionaryAt(event.body.get(), "Properties");
        return std::tuple{PropertyList::stringAt(event.body.get(), "MessageType").value_or(""),
                          PropertyList::stringAt(properties, "SerialNumber").value_or(""),
                          PropertyList::integerAt(event.body.get(), "DeviceID").value_or(-1)};
    };
    for (const auto& phone : devices) {
        EXPECT_EQ(next(), std::tuple("Attached", phone.serial, phone.id));
    }

    ASSERT_EQ(simulator.request(testing::dict("MessageType", PropertyList::string("Attach"),
                                              "Phone", PropertyList::string("SECOND,2,echo"))),
              0);
    const auto [type, serial, secondID] = next();
    EXPECT_EQ(type, "Attached");
    EXPECT_EQ(serial, "SECOND");

    // A tunnel to the new phone works until its cable is pulled.
    Result tunnel = client.connect(secondID, 9876);
    ASSERT_EQ(tunnel.outcome, Result::Outcome::listening);
    UsbmuxdStream stream(std::move(tunnel.tunnel));
    stream.send(asBytes("ping"));
    std::string echoed;
    while (echoed.size() < 4) {
        echoed += asText(stream.receive(4));
    }
    EXPECT_EQ(echoed, "ping");
    EXPECT_TRUE(simulator.detach("SECOND"));
    EXPECT_EQ(next(), std::tuple("Detached", "", secondID));
    EXPECT_TRUE(testing::throwsClosed([&] { stream.receive(10); }))
        << "the tunnel outlived its phone";
    EXPECT_EQ(client.listDevices().size(), 3u);
    EXPECT_FALSE(simulator.detach("SECOND"));
    stream.close();
    EXPECT_EQ(simulator.process().terminate(), 0) << "the simulator ends cleanly on SIGTERM";
}

// Over TCP, on each loopback address, with clients that poll over and over,
// each on a connection of its own.
TEST(UsbmuxdSimulator, OverTcpItTakesClientsOnEachLoopbackAddressAndPollingLeavesNoThreadBehind) {
    ChildProcess process({testing::simulatorProgram(), "--tcp", "0", "--phone", "SERIAL1,1,test"});
    const auto line = process.readLine().value_or("(no output)");
    ASSERT_EQ(line.rfind("listening on 127.0.0.1:", 0), 0u) << line;
    const auto port = static_cast<std::uint16_t>(std::stoi(line.substr(line.rfind(':') + 1)));
    std::vector<std::string> hosts{"127.0.0.1", "localhost"};
    if (testing::hasIPv6Loopback()) {
        hosts.push_back("::1");
    }
    const auto poll = [&](std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) {
            const std::string& host = hosts[i % hosts.size()];
            ASSERT_EQ(UsbmuxdClient({{}, host, port}).listDevices().size(), 1u) << host;
        }
    };
    poll(21); // the allocator's arenas and the stack cache fill up first
    const std::size_t settled = mappingsOf(process.pid());
    constexpr std::size_t requests = 200;
    poll(requests);
    EXPECT_LT(mappingsOf(process.pid()), settled + requests / 4)
        << "the threads of ended connections are still there";
    EXPECT_EQ(process.terminate(), 0);
    if (!testing::hasIPv6Loopback()) {
        GTEST_SKIP() << "this machine has no ::1: IPv6 was not tried";
    }
}

// A phone is a receiver service: a file whose bytes do not match its digest
// is answered so, and the simulator's output names it.
TEST(UsbmuxdSimulator, APhoneAnswersAndReportsTheFilesItRejects) {
    SimulatorProcess simulator({"SIM1,0x12a8,test"});
    UsbmuxdClient client(simulator.address());
    Result tunnel = client.connect(client.listDevices().at(0).id, 9876);
    ASSERT_EQ(tunnel.outcome, Result::Outcome::listening);
    FrameChannel channel(std::make_shared<UsbmuxdStream>(std::move(tunnel.tunnel)));
    const Bytes bytes = toBytes("not what the digest says");
    channel.sendFrame(WireMessage::encode(SessionHeader{}));
    channel.sendFrame(WireMessage::encode(FileHeader{
        .name = "bad.jpg", .byteCount = bytes.size(), .sha256 = Checksum::sha256Hex(Bytes{})}));
    channel.sendRaw(bytes);
    EXPECT_EQ(WireMessage::decode<Ack>(channel.receiveFrame(FrameChannel::maxMessageBytes)).message,
              "checksum mismatch");
    std::optional<std::string> line;
    while ((line = simulator.process().readLine()) &&
           *line != "SIM1: bad.jpg failed: checksum mismatch") {
    }
    EXPECT_TRUE(line) << "the simulator did not name the rejected file";
}

} // namespace
} // namespace kestrelvane
