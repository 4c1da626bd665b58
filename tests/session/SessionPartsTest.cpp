// Pieces of the session layer: a send's bytes counted as the transport takes
// them, and the scratch folders of receivers started together. The layer as
// a whole is tested as its programs run it (tests/cli, tests/app, tests/faults).
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/session/CountingStream.h"
#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/session/ScratchFolder.h"
#include "KestrelvaneKit/session/UsbPhones.h"
#include "support/FakeUsbmuxd.h"
#include "support/MemoryStream.h"
#include "support/ScopedEnvironment.h"
#include "support/SimulatorProcess.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace kestrelvane {
namespace {

constexpr std::uint64_t mib = 1'048'576;

TEST(Destination, ParsesTheFormsItIsWrittenIn) {
    const std::pair<std::string, Destination> forms[] = {
        {"usb", Destination::usb()},
        {"usb:00008030-001A", Destination::usb("00008030-001A")},
        {"desk.local:9876", Destination::address("desk.local", 9876)},
        {"[fe80::1%eth0]:80", Destination::address("fe80::1%eth0", 80)},
        {"Mac mini: Photos", Destination::announced("Mac mini: Photos")},
    };
    for (const auto& [text, destination] : forms) {
        EXPECT_EQ(Destination::parse(text), destination) << text;
    }
    for (const std::string bad : {"[::1]", "::1:80", ":80", "host:65536", ""}) {
        EXPECT_THROW(Destination::parse(bad), std::invalid_argument) << bad;
    }
}

// Each way a connection fails has its own cause, so that a caller tells them
// apart without reading the message.
TEST(Destination, EachFailureToConnectHasItsOwnCause) {
    using Cause = ConnectError::Cause;
    const testing::TemporaryFolder folder;
    const testing::FakeUsbmuxd hangingUp([](auto&) { return testing::FakeUsbmuxd::Reply{}; });
    const testing::SimulatorProcess empty({}), quiet({"SIM2,0x12a8,none", "SIM5,0x12ab,vanished"});
    const std::uint16_t closed = TcpListener(0, TcpListener::Scope::loopback).port();
    const struct {
        std::string usbmuxd;
        Destination destination;
        Cause cause;
    } cases[] = {
        {(folder.path() / "none").string(), Destination::usb(), Cause::usbmuxdNotRunning},
        {hangingUp.address().path, Destination::usb(), Cause::usbmuxdHungUp},
        {empty.socketPath(), Destination::usb(), Cause::noIphone},
        {quiet.socketPath(), Destination::usb("SIM9"), Cause::noIphone},
        {quiet.socketPath(), Destination::usb("SIM2"), Cause::appNotListening},
        {quiet.socketPath(), Destination::usb("SIM5"), Cause::noIphone}, // detached meanwhile
        {{}, Destination::address("127.0.0.1", closed), Cause::refused},
        {{}, Destination::address("no-such-host.invalid", 9876), Cause::unreachable},
    };
    for (const auto& [usbmuxd, destination, cause] : cases) {
        SCOPED_TRACE(destination.describe());
        const testing::ScopedEnvironment address("USBMUXD_SOCKET_ADDRESS", "UNIX:" + usbmuxd);
        try {
            destination.connect();
            ADD_FAILURE() << "connected";
        } catch (const ConnectError& error) {
            EXPECT_EQ(error.cause(), cause) << error.what();
        }
    }
}

// Nothing answers at a documentation address: only the stop ends the wait.
TEST(Destination, AStopEndsAConnectionStillBeingMade) {
    std::stop_source stop;
    stop.request_stop();
    try {
        Destination::address("192.0.2.1", 9).connect(stop.get_token());
        ADD_FAILURE() << "connected";
    } catch (const ConnectError& error) {
        EXPECT_EQ(error.cause(), ConnectError::Cause::timedOut);
        EXPECT_STREQ(error.what(), "cannot connect to 192.0.2.1:9: stopped");
    }
}

TEST(CountingStream, ReportsALargeSendPieceByPieceAsTheTransportTakesIt) {
    const auto [ours, theirs] = testing::makeMemoryStreamPair();
    std::vector<std::uint64_t> reported;
    CountingStream counting(ours, [&](std::uint64_t bytes) { reported.push_back(bytes); });
    counting.send(Bytes(2 * mib + 5, 7));
    EXPECT_EQ(reported, (std::vector<std::uint64_t>{mib, mib, 5}));
    EXPECT_EQ(theirs->pendingBytes(), 2 * mib + 5);
}

// Receivers starting at the same moment: one's clean-up pass must never take
// the other's brand-new folder for abandoned, lock it or remove it.
TEST(ScratchFolder, AFolderBeingMadeIsNeverTakenForAbandonedByAnotherReceiver) {
    const testing::TemporaryFolder temporary;
    const testing::ScopedEnvironment tmpdir("TMPDIR", temporary.path().string());
    std::atomic<int> removed = 0;
    std::jthread cleaner([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            removed += ScratchFolder::removeAbandoned(temporary.path());
        }
    });
    for (int i = 0; i < 300; ++i) {
        const ScratchFolder folder; // a failure throws, and the cleaner is stopped and joined
        EXPECT_TRUE(std::filesystem::is_directory(folder.path())) << folder.path();
    }
    cleaner.request_stop();
    cleaner.join();
    EXPECT_EQ(removed, 0);
    EXPECT_TRUE(std::filesystem::is_empty(temporary.path()));
}

} // namespace
} // namespace kestrelvane
