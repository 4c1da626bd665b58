// The command-line tool driven as a user drives it, and against malicious
// peers: the built binary in a subprocess, its output and exit status checked.
// docs/reliability.md ("Hostile peers") lists each hostile attempt and what must hold.
#include "Commands.h"
#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/DeviceIdentity.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "KestrelvaneKit/wire/WireMessage.h"
#include "support/CliProcess.h"
#include "support/EngineSession.h"
#include "support/Eventually.h"
#include "support/FakeUsbmuxd.h"
#include "support/Loopback.h"
#include "support/ScriptedReceiver.h"
#include "support/SimulatorProcess.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <netinet/in.h>
#include <regex>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

const fs::path media = fs::path(KV_FIXTURES_DIR) / "media";
const fs::path photo = media / "jpeg-original.jpg";

/// Each send runs to an IPv4 and an IPv6 receiver, and to a phone of the usbmuxd simulator.
class Send : public ::testing::TestWithParam<std::string> {};

std::set<std::string> keysOf(const nlohmann::json& object) {
    std::set<std::string> keys;
    for (const auto& item : object.items()) {
        keys.insert(item.key());
    }
    return keys;
}

// What a phone of the first version heard in the one tunnel the simulator
// captured: a session header, then each file's header and exactly its bytes,
// with no key the first version does not write; and what it said: an
// acknowledgement of the first version per file.
void expectVersionOneConversation(const fs::path& capture,
                                  const std::map<std::string, Bytes>& files) {
    std::vector<fs::path> tunnels;
    for (const auto& entry : fs::directory_iterator(capture)) {
        if (entry.path().extension() == ".in" && entry.file_size() > 0) {
            tunnels.push_back(entry.path());
        }
    }
    ASSERT_EQ(tunnels.size(), 1u);
    EXPECT_TRUE(tunnels[0].filename().string().starts_with("SIM1-9876-")) << tunnels[0];
    ReceiveBuffer heard(readBytes(tunnels[0]));
    const auto session = FrameCodec::decode(heard);
    ASSERT_TRUE(session);
    EXPECT_EQ(keysOf(nlohmann::json::parse(*session)),
              (std::set<std::string>{"schemaVersion", "direction", "albumName"}));
    const std::set<std::string> headerKeys{"name", "mediaType", "byteCount", "sha256",
                                           "creationDate"};
    std::map<std::string, Bytes> sent;
    while (const auto frame = FrameCodec::decode(heard)) {
        const auto header = nlohmann::json::parse(*frame);
        const auto keys = keysOf(header);
        EXPECT_TRUE(std::includes(headerKeys.begin(), headerKeys.end(), keys.begin(), keys.end()))
            << header;
        const std::size_t size = header["byteCount"];
        ASSERT_LE(size, heard.size());
        sent[header["name"]] = heard.take(size);
    }
    EXPECT_TRUE(heard.empty());
    EXPECT_EQ(sent, files);
    ReceiveBuffer said(readBytes(fs::path(tunnels[0]).replace_extension(".out")));
    std::size_t acks = 0;
    while (const auto frame = FrameCodec::decode(said)) {
        EXPECT_EQ(WireMessage::encode(WireMessage::decode<Ack>(*frame)), *frame);
        ++acks;
    }
    EXPECT_TRUE(said.empty());
    EXPECT_EQ(acks, files.size());
}

TEST_P(Send, SavesIntoTheTrimmedAlbumWithCaptureDatesOnceEachAndANamesakeBeside) {
    if (GetParam() == "::1" && !hasIPv6Loopback()) {
        GTEST_SKIP() << "this machine has no IPv6 loopback to listen on";
    }
    TemporaryFolder folder, capture;
    const bool versionOne = GetParam() == "usb-version-1";
    SimulatorProcess usbmuxd(
        {"SIM1,0x12a8,folder=" + folder.path().string()},
        versionOne ? std::vector<std::string>{"--version-1", "--capture", capture.path().string()}
                   : std::vector<std::string>{});
    std::optional<ReceiverProcess> receiver;
    if (!GetParam().starts_with("usb")) {
        receiver.emplace(folder.path(), std::vector<std::string>{}, ChildProcess::Environment{},
                         GetParam());
    }
    const std::string to = receiver ? receiver->address() : "usb";
    const Finished send =
        run({"send", "--log", "stderr", "--album", "  Trip \t", "--to", to, photo.string(),
             (media / "video.mov").string(), (media / "not-an-image.jpg").string()},
            usbmuxd.environment(), Streams::stderrOnly);
    EXPECT_EQ(send.status, 0) << send.text;
    EXPECT_TRUE(send.mentions("transfer: SUMMARY files=3 ok=3")) << send.text;
    EXPECT_TRUE(!receiver || receiver->says("saved   jpeg-original.jpg"));
    const fs::path album = folder.path() / "Trip";
    // DateTimeOriginal 2024:03:05 14:07:09, in UTC
    EXPECT_EQ(std::chrono::file_clock::to_sys(fs::last_write_time(album / "jpeg-original.jpg")),
              std::chrono::sys_seconds(std::chrono::seconds(1709647629)));
    if (versionOne) {
        expectVersionOneConversation(capture.path(),
                                     {{"jpeg-original.jpg", readBytes(photo)},
                                      {"video.mov", readBytes(media / "video.mov")},
                                      {"not-an-image.jpg", readBytes(media / "not-an-image.jpg")}});
    }

    // The same photo again is kept once; a different one of the same name goes beside it.
    // Scripts read --json: one event a line, and nothing else.
    const TemporaryFolder other;
    const Finished again =
        run({"send", "--json", "--log", "stderr", "--album", "Trip", "--to", to, photo.string(),
             writeFile(other.path() / "jpeg-original.jpg", "changed")},
            usbmuxd.environment(), Streams::stdoutOnly);
    EXPECT_EQ(again.status, 0);
    ASSERT_EQ(again.lines.size(), 4u) << again.text;
    EXPECT_EQ(nlohmann::json::parse(again.lines[0])["event"], "start"); // throws on anything else
    // A receiver that speaks the resume extension (over TLS, or a phone's
    // second port) says it holds the same photo already, and it is not sent
    // again; a phone of the first version is sent everything.
    const std::uint64_t held = versionOne ? 0 : fs::file_size(photo);
    for (int index : {1, 2}) {
        const auto ack = nlohmann::json::parse(again.lines[index]);
        EXPECT_EQ(ack["index"], index) << ack;
        EXPECT_EQ(ack["status"], "ok") << ack;
        if (ack["name"] == "jpeg-original.jpg" && ack["bytes"] != 7) {
            EXPECT_EQ(ack.value("held", 0u), held) << ack;
        }
    }
    const auto summary = nlohmann::json::parse(again.lines[3]);
    EXPECT_EQ(summary["saved"], 2);
    EXPECT_EQ(summary["skippedBytes"], held) << summary;
    EXPECT_EQ(summary["sentBytes"], fs::file_size(photo) + 7 - held) << summary;
    EXPECT_EQ(filesUnder(album),
              (std::vector<std::string>{"jpeg-original (1).jpg", "jpeg-original.jpg",
                                        "not-an-image.jpg", "video.mov"}));
    EXPECT_EQ(filesNotAsIn(album, media), std::vector<std::string>{"jpeg-original (1).jpg"});
    EXPECT_EQ(readText(album / "jpeg-original (1).jpg"), "changed");
}

INSTANTIATE_TEST_SUITE_P(KestrelvaneCli, Send,
                         ::testing::Values("127.0.0.1", "::1", "usb", "usb-version-1"),
                         [](const auto& to) {
                             return std::string(to.param == "usb"             ? "Usb"
                                                : to.param == "usb-version-1" ? "UsbVersion1"
                                                : to.param == "::1"           ? "TcpIpv6"
                                                                              : "TcpIpv4");
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
        {{"send", "--insecure", "--to", "CLOSED", "PHOTO"}, 3, "connection refused"},
        {{"send", "--to", "CLOSED", "PHOTO"}, 4, "you have not paired with 127.0.0.1:"},
        {{"pair", "usb"}, 2, "an iPhone on USB needs no pairing"},
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
            arguments.push_back(std::regex_replace(argument == "PHOTO"      ? photo.string()
                                                   : argument == "CLOSED"   ? closed
                                                   : argument == "RECEIVER" ? receiver.address()
                                                                            : argument,
                                                   std::regex("^DIR"), folder.path().string()));
        }
        const Finished done = run(arguments, {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + socket}});
        SCOPED_TRACE(::testing::PrintToString(arguments) + "\n" + done.text);
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
    for (const cli::Command* command : {&cli::sendCommand, &cli::receiveCommand, &cli::pairCommand,
                                        &cli::idCommand, &cli::devicesCommand, &cli::demoCommand}) {
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
    EXPECT_EQ(demo.status, 0) << demo.text;
    EXPECT_TRUE(demo.mentions("demo: PASSED: 9 of 9 files arrived byte for byte")) << demo.text;
}

constexpr int maxSessions = 8;

Bytes operator+(Bytes bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

Bytes frame(std::string_view payload) {
    return FrameCodec::encode(asBytes(payload));
}

/// A session header (naming `album` if given), then a header for one file of
/// `content` announcing `byteCount` bytes (its size when null), then the bytes.
Bytes sessionWithFile(const std::string& name, const std::string& content,
                      nlohmann::json byteCount = nullptr,
                      const std::optional<std::string>& album = std::nullopt) {
    const nlohmann::json file = {
        {"name", name},
        {"mediaType", "photo"},
        {"byteCount", byteCount.is_null() ? nlohmann::json(content.size()) : byteCount},
        {"sha256", Checksum::sha256Hex(asBytes(content))}};
    return frameOf(SessionHeader{.albumName = album}) + frame(file.dump()) + toBytes(content);
}

/// One raw TCP connection to the receiver, written and read by hand.
struct RawPeer {
    explicit RawPeer(int port) {
        const timeval deadline{.tv_sec = 20, .tv_usec = 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
        const sockaddr_in address{.sin_family = AF_INET,
                                  .sin_port = htons(static_cast<std::uint16_t>(port)),
                                  .sin_addr = {htonl(INADDR_LOOPBACK)},
                                  .sin_zero = {}};
        connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~RawPeer() { ::close(fd); }

    /// Reads until the receiver hangs up (true) or goes 20 s without a word
    /// (false); the acknowledgements it sent are then in acks.
    bool receiverHangsUp() {
        ReceiveBuffer received;
        std::uint8_t chunk[4096];
        ssize_t n = 0;
        while ((n = ::recv(fd, chunk, sizeof chunk, 0)) > 0) {
            received.append(ByteView(chunk, static_cast<std::size_t>(n)));
        }
        while (const auto payload = FrameCodec::decode(received)) {
            acks.push_back(WireMessage::decode<Ack>(*payload));
        }
        return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK); // an end or a reset
    }

    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool connected = false;
    std::vector<Ack> acks;
};

/// `kestrelvane receive` with a 1 s idle timeout, its folder two levels down
/// in a folder of the test's own, and its own TMPDIR.
class HostileSender : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(tmp_);
        receiver_ = std::make_unique<ReceiverProcess>(
            inside_,
            std::vector<std::string>{"--idle-timeout", "1", "--max-sessions",
                                     std::to_string(maxSessions)},
            ChildProcess::Environment{{"TMPDIR", tmp_.string()}});
        const auto idleThreads = countIn("task");
        // Settled with one ordinary send, so that what starts lazily has
        // started, and its session over (its thread gone) before a test begins.
        const Finished send = run({"send", "--to", receiver_->address(), photo.string()});
        ASSERT_EQ(send.status, 0) << send.text;
        ASSERT_TRUE(receiver_->says("session 1 ended"));
        ASSERT_TRUE(eventually([&] { return countIn("task") <= idleThreads; }));
        baselineDescriptors_ = countIn("fd");
        baselineThreads_ = countIn("task");
        baselineVirtualMiB_ = virtualMiB();
    }

    fs::path proc() const { return "/proc/" + std::to_string(receiver_->process().pid()); }
    std::ptrdiff_t countIn(const char* what) const {
        return std::distance(fs::directory_iterator(proc() / what), {});
    }
    /// The receiver's address space in MiB: a thread that ended but was never
    /// joined keeps its stack mapped, so unreaped threads show up here.
    std::size_t virtualMiB() const {
        std::size_t pages = 0;
        std::ifstream(proc() / "statm") >> pages;
        return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) >> 20;
    }

    /// Once every session so far has ended (no temporary file in the scratch
    /// folder, which holds only its lock, and threads and descriptors back to
    /// the start), a well-behaved send is served, and nothing but its photo
    /// was written anywhere.
    void expectUnharmed() {
        EXPECT_TRUE(eventually([&] {
            return std::distance(fs::recursive_directory_iterator(tmp_), {}) == 2 &&
                   countIn("fd") <= baselineDescriptors_ && countIn("task") <= baselineThreads_;
        })) << "temporary files, "
            << countIn("fd") << " descriptors and " << countIn("task") << " threads; "
            << baselineDescriptors_ << " and " << baselineThreads_ << " at first";
        const Finished send = run({"send", "--to", receiver_->address(), photo.string()});
        EXPECT_EQ(send.status, 0) << "a well-behaved send failed:\n" << send.text;
        // Only box/in/PHOTO and TMPDIR's scratch folder with its lock exist (an
        // escape of one or two levels, or to an absolute path, lands here).
        EXPECT_EQ(std::distance(fs::recursive_directory_iterator(folder_.path()), {}), 6);
        EXPECT_EQ(readText(inside_ / photo.filename()), readText(photo));
    }

    TemporaryFolder folder_;
    const fs::path inside_ = folder_.path() / "box" / "in";
    const fs::path tmp_ = folder_.path() / "tmp";
    std::unique_ptr<ReceiverProcess> receiver_;
    std::ptrdiff_t baselineDescriptors_ = 0;
    std::ptrdiff_t baselineThreads_ = 0;
    std::size_t baselineVirtualMiB_ = 0;
};

struct Attempt {
    std::string what;
    Bytes bytes;
    bool hangsUp = true; ///< or stays connected, for the receiver to end it
};

TEST_F(HostileSender, BrokenLyingOrStalledSessionsEndAloneAndLeaveNothingBehind) {
    const std::string content = "a photo's bytes";
    const Bytes session = frameOf(SessionHeader{});
    Bytes corrupted = sessionWithFile("bad.jpg", content);
    corrupted.back() ^= 0xff; // its SHA-256 no longer matches
    std::vector<Attempt> attempts = {
        {"a length prefix of 2^32-1 (-1 as a signed length)",
         toBytes(std::string("\xff\xff\xff\xff", 4) + "tail")},
        {"a header frame one byte over 1 MiB", toBytes(std::string("\x00\x10\x00\x01{", 5))},
        {"a session header that is not JSON", frame("{\"schemaVersion\":")},
        {"binary garbage as the session header", frame(std::string("\x00\xfe\x7f\x01\x80", 5))},
        {"a session header of the wrong type", frame("[1,2,3]")},
        {"a file header that is not JSON", session + frame("name=IMG_1.jpg")},
        {"a negative byteCount", sessionWithFile("IMG_1.jpg", content, -1)},
        {"a byteCount above 8 GiB", sessionWithFile("IMG_1.jpg", content, 9'000'000'000ull)},
        {"fewer bytes than the byteCount", sessionWithFile("short.jpg", content, 100'000)},
        // The announced bytes form the file; the rest is read as a length, far too long.
        {"more bytes than the byteCount",
         sessionWithFile(photo.filename().string(), readText(photo)) + Bytes(5000, 0x41)},
        {"a file failing its checksum", corrupted},
        {"silent after connecting", {}, false},
        {"two bytes of a length prefix", Bytes(2, 0), false},
        {"half a session header", Bytes(session.begin(), session.begin() + 10), false},
        {"part of a file's bytes", sessionWithFile("stalled.jpg", content, 1'000'000), false},
    };
    for (const auto& name : std::vector<std::string>{
             "../kvescape.jpg", "../../kvescape.jpg", (folder_.path() / "kvescape.jpg").string(),
             "sub/kvescape.jpg", "..", ".", "", std::string("kv\0escape.jpg", 13),
             std::string(5000, 'a') + ".jpg"}) {
        attempts.push_back({"name " + name.substr(0, 40), sessionWithFile(name, content)});
    }
    for (const auto& album :
         std::vector<std::string>{"../kvescape-album", "../../kvescape-album",
                                  (folder_.path() / "kvescape-album").string(), "a/b", "..",
                                  std::string("kv\0album", 8), std::string(5000, 'b')}) {
        attempts.push_back(
            {"album " + album.substr(0, 40), sessionWithFile("IMG_1.jpg", content, {}, album)});
    }
    for (const auto& attempt : attempts) {
        SCOPED_TRACE(attempt.what);
        {
            RawPeer peer(receiver_->port());
            ASSERT_TRUE(peer.connected);
            ::send(peer.fd, attempt.bytes.data(), attempt.bytes.size(), MSG_NOSIGNAL);
            if (attempt.hangsUp) {
                ::shutdown(peer.fd, SHUT_WR);
            }
            EXPECT_TRUE(peer.receiverHangsUp());
            for (const auto& ack : peer.acks) {
                EXPECT_TRUE(ack.status != Ack::Status::ok || ack.name == photo.filename().string())
                    << ack.name;
            }
        }
        expectUnharmed();
    }
    EXPECT_TRUE(receiver_->says("FAILED  bad.jpg: checksum mismatch"));
    EXPECT_TRUE(receiver_->says(" ended: 0 saved, 1 failed"));
    EXPECT_TRUE(receiver_->says("recv() timed out after 1 s"));
}

TEST_F(HostileSender, AFloodOfAbandonedConnectionsHoldsNeitherThreadsNorDescriptors) {
    int opened = 0;
    for (int i = 0; i < 2000; ++i) {
        opened += RawPeer(receiver_->port()).connected ? 1 : 0; // and dropped at once
    }
    EXPECT_EQ(opened, 2000);
    std::vector<std::unique_ptr<RawPeer>> held;
    for (int i = 0; i < 4 * maxSessions; ++i) {
        held.push_back(std::make_unique<RawPeer>(receiver_->port()));
    }
    // Silent connections wait to be admitted; at most half the places are theirs.
    EXPECT_TRUE(receiver_->says("connection refused: too many connections waiting to be admitted"));
    // A reader, an acknowledgement writer and a saver per session, no more,
    // once the threads of the flood's sessions have ended.
    EXPECT_TRUE(eventually([&] { return countIn("task") <= baselineThreads_ + 3 * maxSessions; }))
        << countIn("task") << " threads, " << baselineThreads_ << " at the start";
    EXPECT_TRUE(eventually([&] { return countIn("fd") <= baselineDescriptors_ + maxSessions + 2; }))
        << countIn("fd") << " descriptors, " << baselineDescriptors_ << " at the start";
    for (auto& peer : held) {
        EXPECT_TRUE(peer->receiverHangsUp());
    }
    held.clear();
    expectUnharmed();
    // Per session thread at most a stack (8 MiB) and a malloc arena (64 MiB of
    // address space); unjoined threads would have kept 2000 stacks, 16 GiB.
    EXPECT_LE(virtualMiB(), baselineVirtualMiB_ + (3 * maxSessions + 2) * (8 + 64) + 64);
}

// One session at a time, and idle sessions kept long enough to be in the way.
TEST(OneSessionReceiver, AConnectionBeyondTheLimitIsTurnedAwayAndTheNextOneIsServed) {
    const TemporaryFolder folder;
    const ReceiverProcess receiver(folder.path(), {"--idle-timeout", "60", "--max-sessions", "1"});
    auto occupant = std::make_unique<RawPeer>(receiver.port());
    ::send(occupant->fd, "", 1, MSG_NOSIGNAL); // the first byte of a sender in clear
    ASSERT_TRUE(receiver.says("session 1: connected")) << "the occupant was turned away";
    EXPECT_EQ(run({"send", "--to", receiver.address(), photo.string()}).status, 3);
    EXPECT_TRUE(receiver.says("connection refused: 1 sessions already open"));
    occupant.reset(); // its session ends with the hang-up, long before the idle timeout
    ASSERT_TRUE(receiver.says("session 1 ended"));
    EXPECT_EQ(run({"send", "--to", receiver.address(), photo.string()}).status, 0);
}

// docs/security.md: a receiver serves paired senders only; pairing takes
// the code of each screen typed on the other; forgetting, on either side,
// undoes it. Nothing of a sender that is not served lands in the folder.
TEST(PrivateReceiver, ServesPairedSendersOnlyPairsOnBothCodesAndForgetsOnEitherSide) {
    const TemporaryFolder folder, laptop; // the receiver's folder; the sender's device
    const ChildProcess::Environment asLaptop = {{"XDG_DATA_HOME", laptop.path().string()}};
    const ReceiverProcess receiver(folder.path(), {"--allow-pairing"}, {}, "127.0.0.1", {}, false);
    const std::string to = receiver.address();
    Finished sent = run({"send", "--to", to, photo.string()}, asLaptop);
    EXPECT_EQ(sent.status, 4);
    EXPECT_TRUE(
        sent.mentions("you have not paired with " + to + ": run `kestrelvane pair " + to + "`"));
    sent = run({"send", "--insecure", "--to", to, photo.string()}, asLaptop);
    EXPECT_EQ(sent.status, 1) << sent.text;
    EXPECT_TRUE(receiver.says("refused: a sender in clear: this receiver serves paired senders"));

    int input[2];
    ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
    const auto pairing = kestrelvane({"pair", to}, asLaptop, Streams::joined, input[0]);
    ::close(input[0]);
    std::string laptopCode;
    std::smatch code;
    while (const auto line = pairing->readLine()) {
        if (std::regex_match(*line, code, std::regex(" {4}([0-9]{3} [0-9]{3})"))) {
            laptopCode = code[1];
            break;
        }
    }
    const std::string receiverCode = receiver.found("\n {4}([0-9]{3} [0-9]{3})\n");
    EXPECT_EQ(laptopCode, receiverCode);
    receiver.type(laptopCode);
    const std::string typed = receiverCode + "\n";
    EXPECT_EQ(::write(input[1], typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    ::close(input[1]);
    const Finished paired = finish(*pairing);
    EXPECT_EQ(paired.status, 0) << paired.text;
    EXPECT_TRUE(receiver.says(": paired with \""));

    sent = run({"send", "--to", to, photo.string()}, asLaptop);
    EXPECT_EQ(sent.status, 0) << sent.text;
    EXPECT_TRUE(sent.mentions("Sending privately to"));
    EXPECT_TRUE(fs::exists(folder.path() / photo.filename()));

    const auto prefix = [](const fs::path& home) {
        return DeviceIdentity::loadOrCreate(home / "kestrelvane").fingerprint().hex().substr(0, 8);
    };
    const fs::path video = media / "video.mov";
    EXPECT_EQ(run({"pair", "--forget", prefix(laptop.path())},
                  {{"XDG_DATA_HOME", receiver.home().string()}})
                  .status,
              0);
    sent = run({"send", "--to", to, video.string()}, asLaptop);
    EXPECT_EQ(sent.status, 4);
    EXPECT_TRUE(sent.mentions("this receiver does not know you: run `kestrelvane pair " + to));
    EXPECT_TRUE(receiver.says("not paired (to pair:"));
    EXPECT_EQ(run({"pair", "--forget", prefix(receiver.home())}, asLaptop).status, 0);
    EXPECT_EQ(run({"send", "--to", to, video.string()}, asLaptop).status, 4);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 1)
        << "something of a sender that was not served landed";
}

Ack ok(const std::string& name) {
    return {.name = name, .status = Ack::Status::ok};
}

TEST(HostileReceiver, SenderCountsOnlyOkAcknowledgementsOfFilesItSentAndAlwaysEnds) {
    const Ack mismatch = {.name = "video.mov", .status = Ack::Status::error, .message = "no"};
    const std::vector<Ack> strangers = {ok("ghost.jpg"), ok("../jpeg-original.jpg"),
                                        ok("JPEG-ORIGINAL.JPG")};
    const std::vector<Ack> twice = {ok("video.mov"), ok("video.mov"), ok("jpeg-original.jpg")};
    const std::multiset<std::string> oneEach = {"video.mov", "jpeg-original.jpg"};
    // What the receiver does, its acknowledgements, a frame it then sends leaving the
    // connection open (else it hangs up), and the files it really saved (acknowledged "ok").
    const std::tuple<std::string, std::vector<Ack>, std::optional<Bytes>,
                     std::multiset<std::string>>
        cases[] = {
            {"acknowledgements for names never sent", strangers, {}, {}},
            {"the video's ok twice, one for the name both photos have", twice, {}, oneEach},
            {"an error and then an ok for the same file", {mismatch, ok("video.mov")}, {}, {}},
            {"garbage instead of an acknowledgement", {}, toBytes("{\"name\":42"), {}},
            {"an acknowledgement without a status", {}, toBytes("{\"name\":\"video.mov\"}"), {}},
            {"a 2 MB frame where an acknowledgement belongs", {}, Bytes(2'000'000, 'x'), {}},
            {"never an acknowledgement, then a hang-up", {}, {}, {}},
        };
    // Two photos of the same name, from two folders, and a video.
    const TemporaryFolder other;
    TcpListener listener(0, TcpListener::Scope::loopback);
    std::vector<std::string> arguments = {"send",
                                          "--json",
                                          "--insecure",
                                          "--to",
                                          "127.0.0.1:" + std::to_string(listener.port()),
                                          photo.string(),
                                          (media / "video.mov").string()};
    arguments.push_back(writeFile(other.path() / "jpeg-original.jpg", "another photo"));
    const std::multiset<std::string> sent = {"jpeg-original.jpg", "jpeg-original.jpg", "video.mov"};
    for (const auto& [what, acks, frame, reallySaved] : cases) {
        SCOPED_TRACE(what);
        const auto sender = kestrelvane(arguments, {}, Streams::stdoutOnly);
        auto stream = std::make_shared<BonjourStream>(listener.accept());
        stream->start();
        ScriptedReceiver receiver(stream, false);
        ASSERT_TRUE(receiver.waitForFiles(sent.size()));
        try {
            for (const auto& ack : acks) {
                receiver.sendAck(ack);
            }
            if (frame) {
                receiver.sendFrame(*frame);
            } else {
                receiver.closeConnection();
            }
        } catch (const std::system_error&) {
            // The sender ends after as many acknowledgements as files, whatever
            // they said, and may have hung up before the last of them.
        }
        const Finished finished = finish(*sender, std::chrono::seconds(30));
        receiver.closeConnection();
        ASSERT_EQ(finished.status, 1) << "the sender did not end with some files not saved";

        // Reported saved, as it went and in the summary, exactly what was
        // acknowledged "ok"; every other file listed as not saved.
        std::multiset<std::string> reportedOk;
        for (const auto& line : finished.lines) {
            const auto event = nlohmann::json::parse(line);
            if (event["event"] == "ack" && event["status"] == "ok") {
                reportedOk.insert(event["name"].get<std::string>());
            }
        }
        EXPECT_EQ(reportedOk, reallySaved);
        const auto summary = nlohmann::json::parse(finished.lines.back());
        EXPECT_EQ(summary["saved"], reallySaved.size()) << summary.dump();
        for (const auto& file : summary["unsaved"]) {
            reportedOk.insert(file["name"].get<std::string>());
        }
        EXPECT_EQ(reportedOk, sent);
    }
}

} // namespace
} // namespace kestrelvane
