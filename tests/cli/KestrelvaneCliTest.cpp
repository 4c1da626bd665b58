// The command-line tool driven as a user drives it: the built binary in a
// subprocess, its output and exit status checked.
#include "CliProcess.h"
#include "KestrelvaneKit/intake/Checksum.h"
#include "support/FakeUsbmuxd.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <netinet/in.h>
#include <regex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

// The fixture's DateTimeOriginal, 2024:03:05 14:07:09, read in UTC.
constexpr std::time_t jpegCaptureTime = 1709647629;

/// `kestrelvane receive --once` on a free port of `address`.
class Receiver {
public:
    explicit Receiver(const fs::path& folder, std::string address = "127.0.0.1",
                      Streams streams = Streams::joined)
        : address_(std::move(address)) {
        process_ = kestrelvane(
            {"receive", "--dir", folder.string(), "--port", "0", "--bind", address_, "--once"}, {},
            streams);
        port_ = announcedPort(*process_);
    }
    /// Where `send --to` finds it.
    std::string address() const {
        const bool v6 = address_.find(':') != std::string::npos;
        return (v6 ? "[" + address_ + "]" : address_) + ":" + std::to_string(port_);
    }
    /// Its output after the first line, and its exit status, once it ends.
    Finished finish() { return testing::finish(*process_); }

private:
    std::string address_;
    std::unique_ptr<ChildProcess> process_;
    int port_ = 0;
};

/// Whether this machine has IPv6 loopback to listen on.
bool hasIpv6Loopback() {
    const int fd = ::socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool bound =
        fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return bound;
}

std::string sha256(const fs::path& path) {
    return Checksum::sha256HexOfFile(path);
}

std::time_t modificationTime(const fs::path& path) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    return status.st_mtime;
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        names.push_back(fs::relative(entry.path(), folder).string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// A port on which nothing listens (bound once by the kernel's choice, then freed).
int closedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

/// Each send over TCP runs once to an IPv4 and once to an IPv6 receiver.
class SendOverTcp : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (GetParam() == "::1" && !hasIpv6Loopback()) {
            GTEST_SKIP() << "this machine has no IPv6 loopback to listen on";
        }
    }
};

TEST_P(SendOverTcp, SavesIntoTheTrimmedAlbumByteForByteWithCaptureDates) {
    TemporaryFolder folder;
    Receiver receiver(folder.path() / "in", GetParam());
    const Finished send =
        run({"send", "--album", "  Trip \t", "--to", receiver.address(),
             (media / "jpeg-original.jpg").string(), (media / "video.mov").string(),
             (media / "not-an-image.jpg").string()});
    EXPECT_EQ(send.status, 0) << send.text();
    const Finished received = receiver.finish();
    EXPECT_EQ(received.status, 0);
    EXPECT_TRUE(received.mentions("saved   jpeg-original.jpg"));

    const fs::path album = folder.path() / "in" / "Trip";
    for (const char* name : {"jpeg-original.jpg", "video.mov", "not-an-image.jpg"}) {
        ASSERT_TRUE(fs::exists(album / name)) << name;
        EXPECT_EQ(sha256(album / name), sha256(media / name)) << name;
    }
    EXPECT_EQ(modificationTime(album / "jpeg-original.jpg"), jpegCaptureTime);
}

INSTANTIATE_TEST_SUITE_P(KestrelvaneCli, SendOverTcp, ::testing::Values("127.0.0.1", "::1"),
                         [](const auto& address) {
                             return std::string(address.param == "::1" ? "Ipv6" : "Ipv4");
                         });

TEST(KestrelvaneCli, ReceiveRefusesToBindAnAddressNoInterfaceHas) {
    TemporaryFolder folder;
    // 192.0.2.1 is set aside for documentation: no machine has it.
    const Finished receive =
        run({"receive", "--dir", folder.path().string(), "--port", "0", "--bind", "192.0.2.1"});
    EXPECT_EQ(receive.status, 1);
    EXPECT_TRUE(receive.mentions("cannot listen on 192.0.2.1 port 0: no network interface of "
                                 "this machine has that address"))
        << receive.text();
}

TEST(KestrelvaneCli, LibraryLogLinesGoToStderrWithLogStderrAndNowhereNearItWithout) {
    TemporaryFolder folder;
    const std::string photo = (media / "jpeg-original.jpg").string();
    const std::regex logLine("^(transfer|net|save|usbmux|listener)( error)?: ");
    for (const bool logged : {true, false}) {
        SCOPED_TRACE(logged ? "with --log stderr" : "without");
        Receiver receiver(folder.path() / (logged ? "logged" : "quiet"));
        std::vector<std::string> arguments = {"send", "--to", receiver.address(), photo};
        if (logged) {
            arguments.insert(arguments.begin() + 1, {"--log", "stderr"});
        }
        const Finished send = run(arguments, {}, Streams::stderrOnly);
        EXPECT_EQ(send.status, 0) << send.text();
        EXPECT_EQ(receiver.finish().status, 0);
        const auto starting = [&](const std::string& prefix) {
            return std::any_of(send.lines.begin(), send.lines.end(),
                               [&](const auto& line) { return line.starts_with(prefix); });
        };
        if (logged) {
            EXPECT_TRUE(starting("transfer: START files=1 ")) << send.text();
            EXPECT_TRUE(starting("transfer: SUMMARY files=1 ok=1")) << send.text();
        } else {
            for (const auto& line : send.lines) {
                EXPECT_FALSE(std::regex_search(line, logLine)) << line;
            }
        }
    }
}

TEST(KestrelvaneCli, SendingTheSameFilesAgainSavesThemOnceAndADifferentFileOfTheSameNameBeside) {
    TemporaryFolder folder;
    TemporaryFolder other;
    const std::string photo = (media / "jpeg-original.jpg").string();
    const fs::path changed = other.path() / "jpeg-original.jpg";
    fs::copy_file(photo, changed);
    std::ofstream(changed, std::ios::binary | std::ios::app) << "changed";
    for (const std::string& file : {photo, photo, changed.string()}) {
        Receiver receiver(folder.path());
        EXPECT_EQ(run({"send", "--to", receiver.address(), file}).status, 0);
        EXPECT_EQ(receiver.finish().status, 0);
    }
    EXPECT_EQ(namesIn(folder.path()),
              (std::vector<std::string>{"jpeg-original (1).jpg", "jpeg-original.jpg"}));
    EXPECT_EQ(sha256(folder.path() / "jpeg-original.jpg"), sha256(photo));
    EXPECT_EQ(sha256(folder.path() / "jpeg-original (1).jpg"), sha256(changed));
}

TEST(KestrelvaneCli, AlbumsThatWouldLeaveTheFolderAreRefusedAndNothingIsWrittenOutside) {
    TemporaryFolder folder;
    const fs::path inside = folder.path() / "in";
    for (const std::string album : {"../outside", "a/b", ".."}) {
        Receiver receiver(inside);
        const Finished send = run({"send", "--album", album, "--to", receiver.address(),
                                   (media / "jpeg-original.jpg").string()});
        EXPECT_EQ(send.status, 1) << album;
        EXPECT_TRUE(send.mentions("jpeg-original.jpg")) << album; // listed as not saved
        receiver.finish();
    }
    EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"in"});
}

TEST(KestrelvaneCli, JsonOutputIsOneEventPerLineFromStartToSummary) {
    TemporaryFolder folder;
    Receiver receiver(folder.path());
    const Finished send =
        run({"send", "--json", "--to", receiver.address(), (media / "jpeg-original.jpg").string(),
             (media / "video.mov").string()});
    receiver.finish();
    ASSERT_EQ(send.status, 0);
    std::vector<nlohmann::json> events;
    for (const auto& line : send.lines) {
        events.push_back(nlohmann::json::parse(line)); // throws on anything else
    }
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0]["event"], "start");
    EXPECT_EQ(events[0]["files"], 2);
    EXPECT_EQ(events[1]["event"], "ack");
    EXPECT_EQ(events[1]["status"], "ok");
    EXPECT_EQ(events[2]["event"], "ack");
    EXPECT_EQ(events[3]["event"], "summary");
    EXPECT_EQ(events[3]["saved"], 2);
    EXPECT_EQ(events[3]["failed"], 0);
    EXPECT_EQ(events[3]["exitStatus"], 0);
}

TEST(KestrelvaneCli, UsageErrorsExitTwoAndNothingToSendExitsZero) {
    EXPECT_EQ(run({"send"}).status, 2);
    EXPECT_EQ(run({"send", "--to", "nowhere", "x.jpg"}).status, 2);
    EXPECT_EQ(run({"send", "--to", "[::1]:99999", "x.jpg"}).status, 2);
    EXPECT_EQ(run({"send", "--colour", "x.jpg"}).status, 2);
    EXPECT_EQ(run({"receive", "--port", "9876"}).status, 2);                          // no --dir
    EXPECT_EQ(run({"receive", "--dir", "x", "--bind", "example.invalid"}).status, 2); // a name
    EXPECT_EQ(run({"teleport"}).status, 2);
    EXPECT_EQ(run({"send", "--help"}).status, 0);

    const Finished nothing = run({"send", (media / "missing.jpg").string()});
    EXPECT_EQ(nothing.status, 0);
    EXPECT_TRUE(nothing.mentions("Nothing to send"));
}

TEST(KestrelvaneCli, NoConnectionExitsThreeAndSaysWhy) {
    const std::string photo = (media / "jpeg-original.jpg").string();
    const Finished refused =
        run({"send", "--to", "127.0.0.1:" + std::to_string(closedPort()), photo});
    EXPECT_EQ(refused.status, 3);
    EXPECT_TRUE(refused.mentions("connection refused"));

    TemporaryFolder folder;
    const std::string socket = (folder.path() / "no-usbmuxd").string();
    const Finished noDaemon = run({"send", photo}, {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + socket}});
    EXPECT_EQ(noDaemon.status, 3);
    EXPECT_TRUE(noDaemon.mentions("usbmuxd is not running at " + socket));
}

TEST(KestrelvaneCli, AUsbmuxdThatHangsUpIsSaidToHaveClosedTheConnectionNotToBeMissing) {
    const FakeUsbmuxd hangsUp([](const FakeUsbmuxd::Request&) { return FakeUsbmuxd::Reply{}; });
    const std::string socket = hangsUp.address().path;
    const ChildProcess::Environment environment = {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + socket}};
    const std::string said = "usbmuxd at " + socket + " closed the connection";

    const Finished send = run({"send", (media / "jpeg-original.jpg").string()}, environment);
    EXPECT_EQ(send.status, 3);
    EXPECT_TRUE(send.mentions(said)) << send.text();
    const Finished devices = run({"devices", "--wait", "0"}, environment);
    EXPECT_EQ(devices.status, 0);
    EXPECT_TRUE(devices.mentions(said)) << devices.text();
    EXPECT_FALSE(devices.mentions("not running"));

    TemporaryFolder folder;
    const std::string missing = (folder.path() / "no-usbmuxd").string();
    const Finished none =
        run({"devices", "--wait", "0"}, {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + missing}});
    EXPECT_EQ(none.status, 0);
    EXPECT_TRUE(none.mentions("usbmuxd is not running at " + missing)) << none.text();
}

/// The usbmuxd simulator with the given phones on a private socket.
class Simulator {
public:
    Simulator(const fs::path& socket, const std::vector<std::string>& phones) : socket_(socket) {
        std::vector<std::string> argv = {KV_USBMUXD_SIM, "--socket", socket.string()};
        for (const auto& phone : phones) {
            argv.insert(argv.end(), {"--phone", phone});
        }
        process_ = std::make_unique<ChildProcess>(argv);
        const auto first = process_->readLine();
        EXPECT_TRUE(first && first->rfind("listening on", 0) == 0) << first.value_or("(nothing)");
    }
    ChildProcess::Environment environment() const {
        return {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + socket_.string()}};
    }

private:
    fs::path socket_;
    std::unique_ptr<ChildProcess> process_;
};

TEST(KestrelvaneCli, SendOverUsbThroughTheSimulatorReachesThePhonesFolder) {
    TemporaryFolder folder;
    const fs::path phone = folder.path() / "phone";
    fs::create_directories(phone);
    Simulator simulator(folder.path() / "usbmuxd", {"SIM0001,0x12a8,folder=" + phone.string()});
    const Finished send = run({"send", "--album", "Holiday", (media / "jpeg-original.jpg").string(),
                               (media / "heic-original.heic").string()},
                              simulator.environment());
    EXPECT_EQ(send.status, 0) << send.text();
    for (const char* name : {"jpeg-original.jpg", "heic-original.heic"}) {
        EXPECT_EQ(sha256(phone / "Holiday" / name), sha256(media / name)) << name;
    }
}

TEST(KestrelvaneCli, UsbSendSaysWhenNoPhoneIsAttachedOrItsReceiverIsNotListening) {
    TemporaryFolder folder;
    const std::string photo = (media / "jpeg-original.jpg").string();
    {
        Simulator none(folder.path() / "empty", {});
        const Finished send = run({"send", photo}, none.environment());
        EXPECT_EQ(send.status, 3);
        EXPECT_TRUE(send.mentions("no iPhone attached"));
    }
    Simulator quiet(folder.path() / "quiet", {"SIM0002,0x12a8,none"});
    const Finished send = run({"send", photo}, quiet.environment());
    EXPECT_EQ(send.status, 3);
    EXPECT_TRUE(send.mentions("Kestrelvane is not listening on the iPhone"));
}

TEST(KestrelvaneCli, DevicesListsTheSimulatedPhonesAndWhetherTheyListen) {
    TemporaryFolder folder;
    Simulator simulator(folder.path() / "usbmuxd", {"SIM0003,0x12a8,test", "SIM0004,0x12ab,none"});
    const Finished devices = run({"devices", "--json", "--wait", "0"}, simulator.environment());
    ASSERT_EQ(devices.status, 0);
    ASSERT_EQ(devices.lines.size(), 1u) << devices.text();
    const auto report = nlohmann::json::parse(devices.lines[0]);
    ASSERT_EQ(report["usb"].size(), 2u);
    EXPECT_EQ(report["usb"][0]["serial"], "SIM0003");
    EXPECT_EQ(report["usb"][0]["listening"], true);
    EXPECT_EQ(report["usb"][1]["serial"], "SIM0004");
    EXPECT_EQ(report["usb"][1]["productId"], 0x12ab);
    EXPECT_EQ(report["usb"][1]["listening"], false);
}

/// The demo leaves its folder for the user to look at; a test does not.
void removeDemoFolder(const Finished& demo) {
    std::smatch match;
    for (const auto& line : demo.lines) {
        if (std::regex_search(line, match, std::regex("in (/.*kestrelvane-demo-[^/]+)/"))) {
            fs::remove_all(match[1].str());
            return;
        }
    }
}

TEST(KestrelvaneCli, DemoSendsItsSamplesOverTheSimulatedUsbPathAndChecksThem) {
    const Finished demo = run({"demo"}, {{"KESTRELVANE_USBMUXD_SIM", KV_USBMUXD_SIM}});
    removeDemoFolder(demo);
    EXPECT_EQ(demo.status, 0) << demo.text();
    ASSERT_FALSE(demo.lines.empty());
    EXPECT_EQ(demo.lines.back(),
              "demo: PASSED: 9 of 9 files arrived byte for byte over the simulated USB path");
}

TEST(KestrelvaneCli, DemoCountsACopyItCannotReadAsNotIntact) {
    // The simulator, with a folder already in the album where the first
    // photo's copy belongs: the phone saves the photo beside it, and the demo
    // finds a folder it cannot read as the copy.
    TemporaryFolder folder;
    const fs::path simulator = folder.path() / "simulator";
    std::ofstream(simulator) << "#!/bin/sh\n"
                                "mkdir -p \"${4#*folder=}/Kestrelvane demo/IMG_1001.JPG\"\n"
                                "exec \"" KV_USBMUXD_SIM "\" \"$@\"\n";
    fs::permissions(simulator, fs::perms::owner_all);
    const Finished demo = run({"demo"}, {{"KESTRELVANE_USBMUXD_SIM", simulator.string()}});
    removeDemoFolder(demo);
    EXPECT_EQ(demo.status, 1) << demo.text();
    EXPECT_TRUE(demo.mentions("IMG_1001.JPG did not arrive intact")) << demo.text();
    ASSERT_FALSE(demo.lines.empty());
    EXPECT_EQ(demo.lines.back(),
              "demo: FAILED: 8 of 9 files arrived byte for byte over the simulated USB path");
}

} // namespace
} // namespace kestrelvane
