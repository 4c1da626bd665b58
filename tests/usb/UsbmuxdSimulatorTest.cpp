// The whole USB road through the usbmuxd simulator binary: the client lists
// and connects, and the receiving engine on the virtual phone saves a batch.
#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "support/CaughtError.h"
#include "support/ChildProcess.h"
#include "support/Loopback.h"
#include "support/SimulatorProcess.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <tuple>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;
using testing::Conversation;
using testing::SimulatorProcess;
using testing::TemporaryFolder;
using Format = PropertyList::Format;
using Result = UsbmuxdClient::ConnectResult;

PropertyList message(const char* type) {
    PropertyList plist = PropertyList::dictionary();
    plist.set("MessageType", PropertyList::string(type));
    return plist;
}

TEST(UsbmuxdSimulator, ABatchTravelsTheWholeRoadToTheVirtualPhoneByteForByte) {
    TemporaryFolder source, phoneFolder;
    SimulatorProcess simulator(
        {"00008030-001A35E22E88802E,0x12a8,folder=" + phoneFolder.path().string()});
    UsbmuxdClient client(simulator.address());
    const auto devices = client.listDevices();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].serial, "00008030-001A35E22E88802E");
    EXPECT_EQ(devices[0].productID, 0x12a8);

    const Result connected = client.connect(devices[0].id, 9876);
    ASSERT_EQ(connected.kind, Result::Kind::tunneled);
    std::vector<fs::path> batch;
    for (const auto& [name, size] :
         {std::pair{"IMG_0001.HEIC", 3 * 1'048'576 + 5}, {"clip.mov", 900'000}, {"a.jpg", 0}}) {
        batch.push_back(testing::writeFile(source.path() / name, testing::pattern(size, 7)));
    }
    FrameChannel channel(std::make_shared<UsbmuxdStream>(connected.fileDescriptor));
    channel.start();
    const auto acks = TransferClient().send(batch, channel, SessionHeader{});
    channel.cancel();

    ASSERT_EQ(acks.size(), 3u);
    for (const auto& ack : acks) {
        EXPECT_EQ(ack.status, Ack::Status::ok) << ack.name << ": " << ack.message.value_or("");
    }
    for (const auto& path : batch) {
        EXPECT_TRUE(testing::readBytes(phoneFolder.path() / path.filename()) ==
                    testing::readBytes(path))
            << path;
    }
}

/// How many memory mappings process `pid` has. A thread's stack and its guard
/// page stay mapped after it ends until it is joined; a joined thread's stack
/// is reused by the next one.
std::size_t mappingsOf(pid_t pid) {
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    return static_cast<std::size_t>(
        std::count(std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>(), '\n'));
}

TEST(UsbmuxdSimulator, ClientsThatPollOverAndOverLeaveNoThreadBehind) {
    SimulatorProcess simulator({"SERIAL1,1,test"});
    UsbmuxdClient client(simulator.address());
    const auto poll = [&](int times) {
        for (int i = 0; i < times; ++i) {
            ASSERT_EQ(client.listDevices().size(), 1u); // a connection of its own each time
        }
    };
    poll(20); // the allocator's arenas and the stack cache fill up first
    const std::size_t settled = mappingsOf(simulator.process().pid());
    constexpr std::size_t requests = 200;
    poll(requests);
    EXPECT_LT(mappingsOf(simulator.process().pid()), settled + requests / 4)
        << "the threads of ended connections are still there";
}

TEST(UsbmuxdSimulator, ConnectsAnswerRefusedOrBadDeviceAsUsbmuxdWould) {
    SimulatorProcess simulator({"LISTENING,1,test", "QUIET,2,none", "GONE,3,vanished"});
    UsbmuxdClient client(simulator.address());
    const auto devices = client.listDevices();
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(client.connect(devices[0].id, 22), Result::connectionRefused());
    EXPECT_EQ(client.connect(devices[1].id, 9876), Result::connectionRefused());
    EXPECT_EQ(client.connect(devices[2].id, 9876), Result::badDevice());
    EXPECT_EQ(client.connect(999, 9876), Result::badDevice());
}

TEST(UsbmuxdSimulator, RepliesInTheRequestsFormatWithItsTagAndTheDaemonsKeys) {
    SimulatorProcess simulator({"SERIAL1,4776,test"}, {"--buid", "THE-BUID"});
    for (const Format format : {Format::xml, Format::binary}) {
        Conversation conversation(simulator.socketPath());
        // One socket carries several requests, as with the real daemon.
        conversation.send(41, message("ListDevices"), format);
        const auto list = conversation.receive();
        EXPECT_EQ(list.tag, 41u);
        EXPECT_EQ(list.format, format);
        plist_t entries = PropertyList::arrayAt(list.body.get(), "DeviceList");
        ASSERT_NE(entries, nullptr);
        ASSERT_EQ(plist_array_get_size(entries), 1u);
        plist_t entry = plist_array_get_item(entries, 0);
        EXPECT_EQ(PropertyList::stringAt(entry, "MessageType"), "Attached");
        const auto id = PropertyList::integerAt(entry, "DeviceID");
        plist_t properties = PropertyList::dictionaryAt(entry, "Properties");
        EXPECT_EQ(PropertyList::integerAt(properties, "DeviceID"), id);
        EXPECT_EQ(PropertyList::stringAt(properties, "SerialNumber"), "SERIAL1");
        EXPECT_EQ(PropertyList::integerAt(properties, "ProductID"), 4776);
        EXPECT_EQ(PropertyList::stringAt(properties, "ConnectionType"), "USB");

        conversation.send(42, message("ReadBUID"), format);
        const auto buid = conversation.receive();
        EXPECT_EQ(buid.tag, 42u);
        EXPECT_EQ(PropertyList::stringAt(buid.body.get(), "BUID"), "THE-BUID");

        conversation.send(43, message("NoSuchRequest"), format);
        EXPECT_EQ(PropertyList::integerAt(conversation.receive().body.get(), "Number"), 1);
    }
}

TEST(UsbmuxdSimulator, ListenersHearOfPhonesAttachedAndDetachedWhileItRuns) {
    SimulatorProcess simulator({"FIRST,1,test"});
    Conversation listener(simulator.socketPath());
    listener.send(5, message("Listen"));
    const auto accepted = listener.receive();
    EXPECT_EQ(accepted.tag, 5u);
    EXPECT_EQ(PropertyList::integerAt(accepted.body.get(), "Number"), 0);
    /// The next event: its type, and the phone's serial or device number.
    const auto next = [&] {
        const auto event = listener.receive();
        EXPECT_EQ(event.tag, 0u);
        plist_t properties = PropertyList::dictionaryAt(event.body.get(), "Properties");
        return std::tuple{PropertyList::stringAt(event.body.get(), "MessageType").value_or(""),
                          PropertyList::stringAt(properties, "SerialNumber").value_or(""),
                          PropertyList::integerAt(event.body.get(), "DeviceID").value_or(-1)};
    };
    EXPECT_EQ(std::get<1>(next()), "FIRST");

    PropertyList attach = message("Attach");
    attach.set("Phone", PropertyList::string("SECOND,2,echo"));
    ASSERT_EQ(simulator.request(attach), 0);
    const auto [type, serial, secondID] = next();
    EXPECT_EQ(type, "Attached");
    EXPECT_EQ(serial, "SECOND");

    // A tunnel to the new phone works until its cable is pulled.
    UsbmuxdClient client(simulator.address());
    const Result tunnel = client.connect(secondID, 9876);
    ASSERT_EQ(tunnel.kind, Result::Kind::tunneled);
    UsbmuxdStream stream(tunnel.fileDescriptor);
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
    EXPECT_EQ(client.listDevices().size(), 1u);

    EXPECT_FALSE(simulator.detach("SECOND"));
    PropertyList badAttach = message("Attach");
    badAttach.set("Phone", PropertyList::string("NOPRODUCT"));
    EXPECT_EQ(simulator.request(badAttach), 1);
    stream.close();
    EXPECT_EQ(simulator.process().terminate(), 0) << "the simulator ends cleanly on SIGTERM";
}

/// The simulator listening on a TCP port of loopback, and the port.
std::pair<std::unique_ptr<ChildProcess>, std::uint16_t> simulatorOverTcp() {
    auto process = std::make_unique<ChildProcess>(std::vector<std::string>{
        testing::simulatorProgram(), "--tcp", "0", "--phone", "SERIAL1,1,test"});
    const auto line = process->readLine().value_or("(no output)");
    EXPECT_EQ(line.rfind("listening on 127.0.0.1:", 0), 0u) << line;
    return {std::move(process),
            static_cast<std::uint16_t>(std::stoi(line.substr(line.rfind(':') + 1)))};
}

TEST(UsbmuxdSimulator, OverTcpItTakesClientsOnIPv4Loopback) {
    const auto [process, port] = simulatorOverTcp();
    for (const char* host : {"127.0.0.1", "localhost"}) {
        EXPECT_EQ(UsbmuxdClient(UsbmuxdClient::SocketAddress{{}, host, port}).listDevices().size(),
                  1u)
            << host;
    }
    EXPECT_EQ(process->terminate(), 0);
}

TEST(UsbmuxdSimulator, OverTcpItTakesClientsOnIPv6Loopback) {
    if (!testing::hasIPv6Loopback()) {
        GTEST_SKIP() << "this machine has no ::1";
    }
    const auto [process, port] = simulatorOverTcp();
    EXPECT_EQ(UsbmuxdClient(UsbmuxdClient::SocketAddress{{}, "::1", port}).listDevices().size(),
              1u);
}

} // namespace
} // namespace kestrelvane
