// A malicious sender against the real `kestrelvane receive` process: raw
// sockets speaking broken, lying or dawdling protocol. After every attempt the
// receiver must still save a well-behaved sender's photo, have written nothing
// outside its folder, left no temporary file, and hold no more threads or
// descriptors than before.
#include "CliProcess.h"
#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "KestrelvaneKit/wire/WireMessage.h"
#include "support/Eventually.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <regex>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

const fs::path photo = media / "jpeg-original.jpg";
constexpr int maxSessions = 8;

std::size_t entriesIn(const fs::path& folder) {
    std::error_code error;
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder, error), fs::directory_iterator()));
}

/// Files anywhere below `folder`, but for the lock of the scratch folder the
/// receiver keeps there while it runs.
std::size_t filesBelow(const fs::path& folder) {
    std::error_code error;
    std::size_t count = 0;
    for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        count += it->is_directory() || it->path().filename() == ".lock" ? 0 : 1;
    }
    return count;
}

Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

Bytes frame(std::string_view payload) {
    return FrameCodec::encode(asBytes(payload));
}

/// A file header as JSON, so that its fields can be anything at all.
std::string fileHeaderJson(const std::string& name, const Bytes& content,
                           nlohmann::json byteCount = nullptr) {
    nlohmann::json header = {{"name", name},
                             {"mediaType", "photo"},
                             {"byteCount", content.size()},
                             {"sha256", Checksum::sha256Hex(content)}};
    if (!byteCount.is_null()) {
        header["byteCount"] = byteCount;
    }
    return header.dump();
}

std::string sessionJson(std::optional<std::string> album = std::nullopt) {
    nlohmann::json header = {{"schemaVersion", 1}, {"direction", "macToPhone"}};
    if (album) {
        header["albumName"] = *album;
    }
    return header.dump();
}

/// A session header, then a header for one file of `content` and its bytes.
Bytes sessionWithFile(const std::string& name, const Bytes& content,
                      nlohmann::json byteCount = nullptr,
                      const std::optional<std::string>& album = std::nullopt) {
    Bytes bytes = frame(sessionJson(album));
    const Bytes header = frame(fileHeaderJson(name, content, std::move(byteCount)));
    bytes.insert(bytes.end(), header.begin(), header.end());
    bytes.insert(bytes.end(), content.begin(), content.end());
    return bytes;
}

/// One raw TCP connection to the receiver, written and read by hand.
class RawPeer {
public:
    explicit RawPeer(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~RawPeer() { ::close(fd_); }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    bool connected() const { return connected_; }

    /// Writes what the receiver takes; false once it has hung up.
    bool send(const Bytes& bytes) {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(n);
        }
        return true;
    }
    void send(std::string_view text) { send(bytesOf(text)); }
    /// Tells the receiver nothing more is coming.
    void finishSending() { ::shutdown(fd_, SHUT_WR); }

    /// Reads until the receiver hangs up (true) or `deadline` passes (false),
    /// keeping every acknowledgement it sent.
    bool receiverHangsUp(std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
        const auto end = std::chrono::steady_clock::now() + deadline;
        Bytes buffer;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            pollfd wait{fd_, POLLIN, 0};
            if (::poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            std::uint8_t chunk[4096];
            const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) {
                return true; // an end or a reset: the receiver let go either way
            }
            buffer.insert(buffer.end(), chunk, chunk + n);
            while (buffer.size() >= FrameCodec::prefixLength) {
                const std::size_t length = *FrameCodec::peekLength(buffer);
                if (buffer.size() < FrameCodec::prefixLength + length) {
                    break;
                }
                const ByteView payload(buffer.data() + FrameCodec::prefixLength, length);
                acks_.push_back(WireMessage::decode<Ack>(payload));
                buffer.erase(buffer.begin(),
                             buffer.begin() +
                                 static_cast<std::ptrdiff_t>(FrameCodec::prefixLength + length));
            }
        }
    }

    const std::vector<Ack>& acks() const { return acks_; }
    bool anyAckOk() const {
        return std::any_of(acks_.begin(), acks_.end(),
                           [](const Ack& ack) { return ack.status == Ack::Status::ok; });
    }

private:
    int fd_;
    bool connected_ = false;
    std::vector<Ack> acks_;
};

struct Attempt {
    std::string what;
    std::function<void(RawPeer&)> script;
};

/// `kestrelvane receive` with a 1 s idle timeout, its folder two levels down
/// so that an escape of one or two levels lands where the test looks, and its
/// own TMPDIR. Its output is drained on a thread so that it never blocks.
class HostileSender : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(tmp_);
        std::vector<std::string> arguments = {"receive", "--dir",  inside_.string(), "--port",
                                              "0",       "--bind", "127.0.0.1"};
        for (const auto& argument : limits()) {
            arguments.push_back(argument);
        }
        process_ = kestrelvane(arguments, {{"TMPDIR", tmp_.string()}}, Streams::stdoutOnly);
        port_ = announcedPort(*process_);
        ASSERT_NE(port_, 0);
        drainer_ = std::thread([this] {
            while (!stopDraining_) {
                if (auto line = process_->readLine(std::chrono::milliseconds(100))) {
                    const std::lock_guard lock(mutex_);
                    output_.push_back(*line);
                }
            }
        });
        // Settled with one ordinary send, so that what starts lazily has started.
        expectServesAWellBehavedSender("before anything hostile");
        ASSERT_TRUE(eventually([&] { return countIn("fd") > 0; }));
        baselineDescriptors_ = countIn("fd");
        baselineThreads_ = countIn("task");
        baselineVirtualMiB_ = virtualMiB();
    }

    virtual std::vector<std::string> limits() const {
        return {"--idle-timeout", "1", "--max-sessions", std::to_string(maxSessions)};
    }

    void TearDown() override {
        stopDraining_ = true;
        if (drainer_.joinable()) {
            drainer_.join();
        }
        if (process_) {
            EXPECT_EQ(process_->terminate(), 0);
        }
    }

    std::size_t countIn(const char* what) const {
        return entriesIn(fs::path("/proc") / std::to_string(process_->pid()) / what);
    }

    /// The receiver's address space in MiB: a thread that ended but was never
    /// joined keeps its stack mapped, so unreaped threads show up here.
    std::size_t virtualMiB() const {
        std::ifstream status(fs::path("/proc") / std::to_string(process_->pid()) / "status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("VmSize:", 0) == 0) {
                return std::stoul(line.substr(7)) / 1024;
            }
        }
        return 0;
    }

    bool outputMentions(const std::string& text) {
        const std::lock_guard lock(mutex_);
        return std::any_of(output_.begin(), output_.end(),
                           [&](const std::string& line) { return line.find(text) != line.npos; });
    }

    void expectServesAWellBehavedSender(const std::string& after) {
        const Finished send = run({"send", "--to", address(), photo.string()});
        EXPECT_EQ(send.status, 0) << "a well-behaved send failed " << after << ":\n" << send.text();
        ++goodSends_;
    }

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    /// The well-behaved sends all sent the same photo: a resend of a file
    /// already saved is recognised, so it is there once.
    void expectOnlyTheWellBehavedPhoto() {
        ASSERT_GT(goodSends_, 0);
        EXPECT_EQ(entriesIn(inside_), 1u);
        EXPECT_TRUE(fs::exists(inside_ / photo.filename()));
    }

    /// Runs each attempt on a connection of its own; the receiver must hang up
    /// (after the attempt's end when `hangUpFirst`, on its own otherwise) without
    /// having acknowledged a file saved, and come to no harm.
    void expectEachRefused(const std::vector<Attempt>& attempts, bool hangUpFirst) {
        for (const auto& attempt : attempts) {
            SCOPED_TRACE(attempt.what);
            {
                RawPeer peer(port_);
                ASSERT_TRUE(peer.connected());
                attempt.script(peer);
                if (hangUpFirst) {
                    peer.finishSending();
                }
                EXPECT_TRUE(peer.receiverHangsUp());
                EXPECT_FALSE(peer.anyAckOk());
            }
            expectUnharmed(attempt.what);
        }
    }

    /// Everything a test checks after each hostile attempt.
    void expectUnharmed(const std::string& attempt) {
        SCOPED_TRACE(attempt);
        expectServesAWellBehavedSender("after " + attempt);
        EXPECT_TRUE(eventually([&] { return filesBelow(tmp_) == 0; }, std::chrono::seconds(10)))
            << "a temporary file stayed behind";
        EXPECT_TRUE(eventually([&] { return countIn("fd") <= baselineDescriptors_; },
                               std::chrono::seconds(10)))
            << countIn("fd") << " descriptors open, " << baselineDescriptors_ << " at the start";
        EXPECT_TRUE(eventually([&] { return countIn("task") <= baselineThreads_; },
                               std::chrono::seconds(10)))
            << countIn("task") << " threads, " << baselineThreads_ << " at the start";
        // Only the receiver's folder and TMPDIR exist, and only files directly in the folder.
        EXPECT_EQ(entriesIn(folder_.path()), 2u);
        EXPECT_EQ(entriesIn(folder_.path() / "box"), 1u);
        for (const auto& entry : fs::recursive_directory_iterator(inside_)) {
            EXPECT_TRUE(entry.is_regular_file()) << entry.path();
            EXPECT_EQ(entry.path().parent_path(), inside_) << entry.path();
        }
        EXPECT_FALSE(fs::exists("/tmp/kvescape.jpg"));
        EXPECT_FALSE(fs::exists("/tmp/kvescape-album"));
    }

    TemporaryFolder folder_;
    const fs::path inside_ = folder_.path() / "box" / "in";
    const fs::path tmp_ = folder_.path() / "tmp";
    std::unique_ptr<ChildProcess> process_;
    int port_ = 0;
    std::size_t baselineDescriptors_ = 0;
    std::size_t baselineThreads_ = 0;
    std::size_t baselineVirtualMiB_ = 0;
    int goodSends_ = 0;

    std::thread drainer_;
    std::atomic<bool> stopDraining_{false};
    std::mutex mutex_;
    std::vector<std::string> output_;
};

TEST_F(HostileSender, BrokenFramingAndMessagesEndOnlyTheirOwnSession) {
    const Bytes content = bytesOf("not really a photo");
    const std::vector<Attempt> attempts = {
        {"a length prefix of 2^32-1 (-1 as a signed length)",
         [](RawPeer& peer) { peer.send(std::string("\xff\xff\xff\xff", 4) + "tail"); }},
        {"a header frame one byte over 1 MiB",
         [](RawPeer& peer) { peer.send(std::string("\x00\x10\x00\x01", 4) + "{\"sche"); }},
        {"a session header that is not JSON",
         [](RawPeer& peer) { peer.send(frame("{\"schemaVersion\":")); }},
        {"binary garbage as the session header",
         [](RawPeer& peer) { peer.send(frame(std::string("\x00\xfe\x7f\x01\x80", 5))); }},
        {"a session header of the wrong type", [](RawPeer& peer) { peer.send(frame("[1,2,3]")); }},
        {"a file header that is not JSON",
         [](RawPeer& peer) {
             peer.send(frame(sessionJson()));
             peer.send(frame("name=IMG_1.jpg"));
         }},
        {"a negative byteCount",
         [&](RawPeer& peer) { peer.send(sessionWithFile("IMG_1.jpg", content, -1)); }},
        {"a byteCount above 8 GiB",
         [&](RawPeer& peer) {
             peer.send(sessionWithFile("IMG_1.jpg", content, 9'000'000'000ull));
         }},
        {"fewer bytes than the byteCount, then a hang-up",
         [&](RawPeer& peer) { peer.send(sessionWithFile("short.jpg", content, 100'000)); }},
    };
    expectEachRefused(attempts, true);
    expectOnlyTheWellBehavedPhoto();
}

TEST_F(HostileSender, NamesAndAlbumsThatWouldLeaveTheFolderAreRefused) {
    const Bytes content = bytesOf("a photo's bytes");
    const std::string longName = std::string(5000, 'a') + ".jpg";
    const std::vector<std::pair<std::optional<std::string>, std::string>> tries = {
        {std::nullopt, "../kvescape.jpg"},
        {std::nullopt, "../../kvescape.jpg"},
        {std::nullopt, "/tmp/kvescape.jpg"},
        {std::nullopt, "sub/kvescape.jpg"},
        {std::nullopt, ".."},
        {std::nullopt, "."},
        {std::nullopt, ""},
        {std::nullopt, std::string("kv\0escape.jpg", 13)},
        {std::nullopt, longName},
        {"../kvescape-album", "IMG_1.jpg"},
        {"../../kvescape-album", "IMG_1.jpg"},
        {"/tmp/kvescape-album", "IMG_1.jpg"},
        {"a/b", "IMG_1.jpg"},
        {"..", "IMG_1.jpg"},
        {std::string("kv\0album", 8), "IMG_1.jpg"},
        {std::string(5000, 'b'), "IMG_1.jpg"},
    };
    std::vector<Attempt> attempts;
    for (const auto& [album, name] : tries) {
        attempts.push_back(
            {"album '" + album.value_or("(none)").substr(0, 40) + "', name '" + name.substr(0, 40),
             [&, album = album, name = name](RawPeer& peer) {
                 peer.send(sessionWithFile(name, content, nullptr, album));
             }});
    }
    expectEachRefused(attempts, true);
    expectOnlyTheWellBehavedPhoto();
}

TEST_F(HostileSender, BytesBeyondTheByteCountNeverReachTheFile) {
    const Bytes content = bytesOf("0123456789");
    {
        RawPeer peer(port_);
        peer.send(sessionWithFile("more.jpg", content));
        peer.send(Bytes(5000, 0x41)); // read as the next header's length: far too long
        EXPECT_TRUE(peer.receiverHangsUp());
    }
    expectUnharmed("more bytes than the byteCount");
    if (fs::exists(inside_ / "more.jpg")) { // verified before the junk was read, so kept
        EXPECT_EQ(fs::file_size(inside_ / "more.jpg"), content.size());
    }
}

TEST_F(HostileSender, AFileFailingItsChecksumIsRefusedAndCountedAsFailed) {
    Bytes corrupted = sessionWithFile("bad.jpg", bytesOf("a photo's bytes"));
    corrupted.back() ^= 0xff; // the file's last byte: its SHA-256 no longer matches
    {
        RawPeer peer(port_);
        peer.send(corrupted);
        peer.finishSending();
        EXPECT_TRUE(peer.receiverHangsUp());
        ASSERT_EQ(peer.acks().size(), 1u);
        EXPECT_EQ(peer.acks()[0].message, "checksum mismatch");
    }
    EXPECT_TRUE(eventually([&] { return outputMentions("FAILED  bad.jpg: checksum mismatch"); }));
    EXPECT_TRUE(eventually([&] { return outputMentions(" ended: 0 saved, 1 failed"); }));
    expectUnharmed("a file failing its checksum");
    expectOnlyTheWellBehavedPhoto();
}

TEST_F(HostileSender, SlowLorisSendersAreCutOffByTheIdleTimeout) {
    const Bytes content = bytesOf("a photo's bytes");
    const std::vector<Attempt> attempts = {
        {"silent after connecting", [](RawPeer&) {}},
        {"two bytes of a length prefix", [](RawPeer& peer) { peer.send(std::string("\0\0", 2)); }},
        {"half a session header",
         [](RawPeer& peer) {
             const Bytes whole = frame(sessionJson());
             peer.send(Bytes(whole.begin(), whole.begin() + 10));
         }},
        {"part of a file's bytes",
         [&](RawPeer& peer) { peer.send(sessionWithFile("stalled.jpg", content, 1'000'000)); }},
    };
    // The connections stay open: only the receiver can end them.
    expectEachRefused(attempts, false);
    EXPECT_TRUE(eventually([&] { return outputMentions("recv() timed out after 1 s"); }));
}

TEST_F(HostileSender, AFloodOfAbandonedConnectionsHoldsNeitherThreadsNorDescriptors) {
    int opened = 0;
    for (int i = 0; i < 2000; ++i) {
        opened += RawPeer(port_).connected() ? 1 : 0; // and dropped at once
    }
    EXPECT_EQ(opened, 2000);
    std::vector<std::unique_ptr<RawPeer>> held;
    for (int i = 0; i < 4 * maxSessions; ++i) {
        held.push_back(std::make_unique<RawPeer>(port_));
    }
    EXPECT_TRUE(
        eventually([&] { return outputMentions("sessions already open (--max-sessions)"); }));
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
    expectUnharmed("2000 abandoned and 32 held connections");
    // Per session thread at most a stack (8 MiB) and a malloc arena (64 MiB of
    // address space); unjoined threads would have kept 2000 stacks, 16 GiB.
    EXPECT_LE(virtualMiB(), baselineVirtualMiB_ + (3 * maxSessions + 2) * (8 + 64) + 64);
}

/// One session at a time, and idle sessions kept long enough to be in the way.
class OneSessionReceiver : public HostileSender {
protected:
    std::vector<std::string> limits() const override {
        return {"--idle-timeout", "60", "--max-sessions", "1"};
    }
};

TEST_F(OneSessionReceiver, AConnectionBeyondTheLimitFailsAtOnceAndTheNextOneIsServed) {
    auto occupant = std::make_unique<RawPeer>(port_);
    ASSERT_TRUE(occupant->connected());
    EXPECT_EQ(run({"send", "--to", address(), photo.string()}).status, 1);
    EXPECT_TRUE(
        eventually([&] { return outputMentions("connection refused: 1 sessions already open"); }));
    occupant.reset(); // its session ends with the hang-up, long before the idle timeout
    expectUnharmed("a connection refused for the session limit");
}

TEST(ReceiverLimits, HelpStatesThemAndOutOfRangeValuesAreUsageErrors) {
    const Finished help = run({"receive", "--help"});
    const std::string text = help.text();
    EXPECT_EQ(help.status, 0);
    for (const char* mention : {"--max-sessions N", "(default 8)", "--idle-timeout SECONDS",
                                "(default 120; 0 waits for ever)", "1 MiB", "8 GiB"}) {
        EXPECT_NE(text.find(mention), std::string::npos) << mention;
    }
    TemporaryFolder folder;
    for (const auto& [option, value] :
         std::vector<std::pair<std::string, std::string>>{{"--max-sessions", "0"},
                                                          {"--max-sessions", "many"},
                                                          {"--max-sessions", "2000"},
                                                          {"--idle-timeout", "-1"},
                                                          {"--idle-timeout", "1.5"},
                                                          {"--idle-timeout", "99999999999"}}) {
        const Finished receive =
            run({"receive", "--dir", folder.path().string(), "--port", "0", option, value});
        EXPECT_EQ(receive.status, 2) << option << " " << value;
        EXPECT_TRUE(receive.mentions(option + " takes a whole number")) << option << " " << value;
    }
}

} // namespace
} // namespace kestrelvane
