// The command-line tool driven as a user drives it: the built binary in a
// subprocess, its output and exit status checked.
#include "Commands.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "support/CliProcess.h"
#include "support/EngineSession.h"
#include "support/FakeUsbmuxd.h"
#include "support/Loopback.h"
#include "support/SimulatorProcess.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <sys/stat.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

const fs::path media = fs::path(KV_FIXTURES_DIR) / "media";
const std::string photo = (media / "jpeg-original.jpg").string();

/// Each send runs to an IPv4 and an IPv6 receiver, and to a phone of the usbmuxd simulator.
class Send : public ::testing::TestWithParam<std::string> {};

TEST_P(Send, SavesIntoTheTrimmedAlbumWithCaptureDatesOnceEachAndANamesakeBeside) {
    if (GetParam() == "::1" && !hasIPv6Loopback()) {
        GTEST_SKIP() << "this machine has no IPv6 loopback to listen on";
    }
    TemporaryFolder folder;
    SimulatorProcess usbmuxd({"SIM1,0x12a8,folder=" + folder.path().string()});
    std::optional<ReceiverProcess> receiver;
    if (GetParam() != "usb") {
        receiver.emplace(folder.path(), std::vector<std::string>{}, ChildProcess::Environment{},
                         GetParam());
    }
    const std::string to = receiver ? receiver->address() : "usb";
    const Finished send =
        run({"send", "--log", "stderr", "--album", "  Trip \t", "--to", to, photo,
             (media / "video.mov").string(), (media / "not-an-image.jpg").string()},
            usbmuxd.environment(), Streams::stderrOnly);
    EXPECT_EQ(send.status, 0) << send.text();
    EXPECT_TRUE(send.mentions("transfer: SUMMARY files=3 ok=3")) << send.text();
    EXPECT_TRUE(!receiver || receiver->says("saved   jpeg-original.jpg"));
    const fs::path album = folder.path() / "Trip";
    struct stat status {};
    ::stat((album / "jpeg-original.jpg").c_str(), &status);
    EXPECT_EQ(status.st_mtime, 1709647629); // DateTimeOriginal 2024:03:05 14:07:09, in UTC

    // The same photo again is kept once; a different one of the same name goes beside it.
    // Scripts read --json: one event a line, and nothing else.
    const TemporaryFolder other;
    const Finished again = run({"send", "--json", "--log", "stderr", "--album", "Trip", "--to", to,
                                photo, writeFile(other.path() / "jpeg-original.jpg", "changed")},
                               usbmuxd.environment(), Streams::stdoutOnly);
    EXPECT_EQ(again.status, 0);
    ASSERT_EQ(again.lines.size(), 4u) << again.text();
    EXPECT_EQ(nlohmann::json::parse(again.lines[0])["event"], "start"); // throws on anything else
    for (int index : {1, 2}) {
        const auto ack = nlohmann::json::parse(again.lines[index]);
        EXPECT_EQ(ack["index"], index) << ack;
        EXPECT_EQ(ack["status"], "ok") << ack;
    }
    EXPECT_EQ(nlohmann::json::parse(again.lines[3])["saved"], 2);
    EXPECT_EQ(filesUnder(album),
              (std::vector<std::string>{"jpeg-original (1).jpg", "jpeg-original.jpg",
                                        "not-an-image.jpg", "video.mov"}));
    EXPECT_EQ(filesNotAsIn(album, media), std::vector<std::string>{"jpeg-original (1).jpg"});
    EXPECT_EQ(readText(album / "jpeg-original (1).jpg"), "changed");
}

INSTANTIATE_TEST_SUITE_P(
    KestrelvaneCli, Send, ::testing::Values("127.0.0.1", "::1", "usb"), [](const auto& to) {
        return std::string(to.param == "usb" ? "Usb" : to.param == "::1" ? "TcpIpv6" : "TcpIpv4");
    });

struct Outcome {
    std::vector<std::string> arguments; ///< PHOTO, DIR, CLOSED and RECEIVER stand for paths
    int status;
    std::string says; ///< in a line of its output; SOCKET stands for usbmuxd's socket
    /// What answers on usbmuxd's socket: nothing, a usbmuxd that hangs up, the
    /// simulator with no phone, or with two that take no tunnel.
    enum { absent, hangsUp, noPhone, quietPhones } usbmuxd = absent;
};

TEST(KestrelvaneCli, ExitStatusSaysWhetherAUsageErrorFilesNotSavedOrNoConnection) {
    const std::vector<Outcome> outcomes = {
        {{"send"}, 2, "nothing to send"},
        {{"send", "--to", "[::1]", "PHOTO"}, 2, "--to: '[::1]' is not [ADDR]:PORT"},
        {{"send", "--to", "127.0.0.1:65536", "PHOTO"}, 2, "'65536' is not a port number"},
        {{"send", "--colour", "PHOTO"}, 2, "unknown option '--colour'"},
        {{"teleport"}, 2, "unknown command 'teleport'"},
        {{"receive", "--port", "9876"}, 2, "--dir DIR is required"},
        {{"receive", "--dir", "DIR", "--bind", "example.invalid"}, 2, "--bind takes an IPv4"},
        {{"receive", "--dir", "DIR", "--max-sessions", "0"},
         2,
         "--max-sessions takes a whole number from 1 to 1024, not '0'"},
        {{"receive", "--dir", "DIR", "--port", "65536"}, 2, "--port takes a whole number from 0"},
        {{"receive", "--dir", "DIR", "--idle-timeout", "1.5"}, 2, "--idle-timeout takes a whole"},
        {{"devices", "--wait", "nan"}, 2, "--wait takes a number from 0 to 600, not 'nan'"},
        {{"devices", "--wait", "1s"}, 2, "--wait takes a number from 0 to 600, not '1s'"},
        {{"demo", "now"}, 2, "unexpected 'now'"},
        {{"send", "--help"}, 0, "usage: kestrelvane send"},
        {{"send", "DIR/missing.jpg"}, 1, "missing.jpg: No such file or directory"},
        {{"send", "--to", "RECEIVER", "PHOTO", "DIR/typo.jpg"}, 1, "1 of 1 saved"},
        {{"receive", "--dir", "/dev/null/in"}, 1, "cannot use /dev/null/in as the folder"},
        // 192.0.2.1 is set aside for documentation: no machine has it. A name
        // for --advertise is optional, and an option is not one.
        {{"receive", "--dir", "DIR", "--advertise", "--bind", "192.0.2.1"},
         1,
         "no network interface of this"},
        {{"send", "--album", "..", "--to", "RECEIVER", "PHOTO"}, 1, "refused unsafe album name"},
        {{"send", "--to", "CLOSED", "PHOTO"}, 3, "connection refused"},
        {{"send", "PHOTO"}, 3, "usbmuxd is not running at SOCKET"},
        {{"send", "PHOTO"}, 3, "usbmuxd at SOCKET closed the connection", Outcome::hangsUp},
        {{"send", "PHOTO"}, 3, "no iPhone attached", Outcome::noPhone},
        {{"send", "PHOTO"}, 3, "Kestrelvane is not listening on the iPhone", Outcome::quietPhones},
        {{"devices", "--wait", "0"}, 0, "usbmuxd is not running at SOCKET"},
        {{"devices", "--wait", "0"}, 0, "usbmuxd at SOCKET closed the", Outcome::hangsUp},
        {{"devices", "--json", "--wait", "0"},
         0,
         R"("listening":false,"port9876":"detached","productId":4779,"serial":"SIM5")",
         Outcome::quietPhones},
    };
    const TemporaryFolder folder;
    const ReceiverProcess receiver(folder.path() / "in");
    const std::string closed = "127.0.0.1:" + std::to_string(TcpListener(0).port());
    const FakeUsbmuxd hangingUp([](auto&) { return FakeUsbmuxd::Reply{}; });
    const SimulatorProcess empty({}), quiet({"SIM2,0x12a8,none", "SIM5,0x12ab,vanished"});
    const std::string sockets[] = {(folder.path() / "no-usbmuxd").string(),
                                   hangingUp.address().path, empty.socketPath(),
                                   quiet.socketPath()};
    for (const auto& outcome : outcomes) {
        const std::string& socket = sockets[outcome.usbmuxd];
        std::vector<std::string> arguments;
        for (const auto& argument : outcome.arguments) {
            arguments.push_back(std::regex_replace(argument == "PHOTO"      ? photo
                                                   : argument == "CLOSED"   ? closed
                                                   : argument == "RECEIVER" ? receiver.address()
                                                                            : argument,
                                                   std::regex("^DIR"), folder.path().string()));
        }
        const Finished done = run(arguments, {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + socket}});
        SCOPED_TRACE(::testing::PrintToString(arguments) + "\n" + done.text());
        EXPECT_EQ(done.status, outcome.status);
        EXPECT_TRUE(done.mentions(std::regex_replace(outcome.says, std::regex("SOCKET"), socket)));
    }
    // Only the photo sent beside a missing path was saved.
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(folder.path()), {}), 2);
}

// Each command's --help shows all its declaration says, within 79 columns,
// and the manual gives the same exit statuses.
TEST(KestrelvaneCli, HelpShowsEachDeclarationAndTheManualAgreesOnExitStatuses) {
    std::ifstream file(fs::path(KV_FIXTURES_DIR) / "../../docs/kestrelvane.md");
    const std::string manual{std::istreambuf_iterator<char>(file), {}};
    const auto squeezed = [](const std::string& text) {
        return std::regex_replace(text, std::regex("\\s+"), " ");
    };
    for (const cli::Command* command :
         {&cli::sendCommand, &cli::receiveCommand, &cli::devicesCommand, &cli::demoCommand}) {
        const std::string help = cli::usage(*command);
        std::istringstream lines(help);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 79u) << line;
        }
        const auto shows = [&](const std::string& text) {
            EXPECT_NE(squeezed(help).find(squeezed(text)), std::string::npos) << text;
        };
        std::vector<std::string> texts = command->summary;
        for (const auto& option : command->options) {
            texts.push_back(option.help);
            for (const auto& [value, text] : option.forms) {
                texts.push_back("--" + option.name + " " + value + " " + text);
            }
        }
        std::for_each(texts.begin(), texts.end(), shows);
        const auto start = manual.find("\n## " + command->name + "\n");
        const std::string section = manual.substr(start, manual.find("\n## ", start + 1) - start);
        for (const auto& [status, meaning] : command->exitStatuses) {
            shows(std::to_string(status) + " " + meaning);
            EXPECT_NE(section.find("| " + std::to_string(status) + " | " + meaning + " |"),
                      std::string::npos)
                << command->name << " " << status;
        }
    }
}

// What README tells a newcomer to run first.
TEST(KestrelvaneCli, DemoSendsItsSamplesOverTheSimulatedUsbPathAndChecksThem) {
    const TemporaryFolder folder; // where the demo leaves its files for the user
    const Finished demo = run({"demo"}, {{"KESTRELVANE_USBMUXD_SIM", simulatorProgram()},
                                         {"TMPDIR", folder.path().string()}});
    EXPECT_EQ(demo.status, 0) << demo.text();
    EXPECT_TRUE(demo.mentions("demo: PASSED: 9 of 9 files arrived byte for byte")) << demo.text();
}

} // namespace
} // namespace kestrelvane
