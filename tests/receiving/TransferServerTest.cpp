#include "KestrelvaneKit/receiving/TransferServer.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "KestrelvaneKit/wire/WireMessage.h"
#include "support/FileSizeLimit.h"
#include "support/MemoryStream.h"
#include "support/ScriptedStream.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::makeMemoryStreamPair;
using testing::MemoryStream;
using testing::ScriptedStream;
using testing::TemporaryFolder;

Bytes pattern(std::size_t size, std::uint8_t seed) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = static_cast<std::uint8_t>(seed * 31 + i * 7 + i / 251);
    }
    return out;
}

Bytes readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

FileHeader headerFor(const std::string& name, const Bytes& bytes) {
    return FileHeader{.name = name,
                      .mediaType = MediaType::photo,
                      .byteCount = bytes.size(),
                      .sha256 = Checksum::sha256Hex(bytes)};
}

/// Records everything a saver is asked to do. Outcomes are published at once
/// unless `deferUntilFlush`, when they wait for flushAndDrain like a batching
/// saver's; names in `rejected` are reported as errors.
class RecordingSaver final : public BatchSaving {
public:
    bool deferUntilFlush = false;
    std::map<std::string, std::string> rejected;

    void begin(const SessionHeader& session) override {
        const std::lock_guard lock(mutex_);
        sessions.push_back(session);
    }
    void enqueue(const fs::path& file, const FileHeader& header) override {
        BatchOutcome outcome{.name = header.name};
        if (const auto reason = rejected.find(header.name); reason != rejected.end()) {
            outcome.status = Ack::Status::error;
            outcome.message = reason->second;
        }
        {
            const std::lock_guard lock(mutex_);
            paths.push_back(file);
            contents[header.name] = readFile(file);
            headers.push_back(header);
            if (deferUntilFlush) {
                deferred_.push_back(outcome);
            }
        }
        fs::remove(file);
        if (!deferUntilFlush) {
            outcomes_.publish(outcome);
        }
    }
    void flushAndDrain() override {
        std::vector<BatchOutcome> pending;
        {
            const std::lock_guard lock(mutex_);
            ++flushes;
            pending.swap(deferred_);
        }
        for (auto& outcome : pending) {
            outcomes_.publish(std::move(outcome));
        }
        outcomes_.finish();
    }
    AsyncQueue<BatchOutcome>& outcomes() override { return outcomes_; }

    std::vector<SessionHeader> sessions;
    std::vector<fs::path> paths;
    std::vector<FileHeader> headers;
    std::map<std::string, Bytes> contents;
    int flushes = 0;

private:
    std::mutex mutex_;
    std::vector<BatchOutcome> deferred_;
    AsyncQueue<BatchOutcome> outcomes_;
};

/// A server session over an in-memory connection, driven frame by frame from
/// the test as a sender would, with the server's run() on its own thread.
/// A server that stops answering fails the test at the deadline: the
/// connection is closed then, so no wait for it hangs.
class ServerSession {
public:
    static constexpr auto deadline = std::chrono::seconds(60);

    explicit ServerSession(BatchSaving& saver, const fs::path& temporaryDirectory)
        : streams_(makeMemoryStreamPair()), sender_(streams_.first), receiver_(streams_.second),
          server_(saver, temporaryDirectory) {
        done_ = std::async(std::launch::async, [this] {
            server_.run(receiver_, [this](const TransferServer::Event& event) {
                const std::lock_guard lock(eventsMutex_);
                events_.push_back(event);
            });
            // As a real caller does once the session is over.
            receiver_.cancel();
        });
        watchdog_ = std::jthread([this](const std::stop_token& stop) {
            std::mutex mutex;
            std::unique_lock lock(mutex);
            if (!std::condition_variable_any().wait_for(lock, stop, deadline,
                                                        [&] { return stop.stop_requested(); })) {
                ADD_FAILURE() << "the session was not over within " << deadline.count() << " s";
                streams_.first->close();
            }
        });
    }
    ~ServerSession() {
        watchdog_.request_stop();
        watchdog_.join();
        streams_.first->close();
        done_.wait();
    }

    void sendSession(const SessionHeader& session = {}) {
        sender_.sendFrame(WireMessage::encode(session));
    }
    void sendFile(const FileHeader& header, const Bytes& bytes) {
        sender_.sendFrame(WireMessage::encode(header));
        sender_.sendRaw(bytes);
    }
    /// Sends files the server may end the session at: it can close before
    /// the bytes behind the refused header are written.
    void sendFilesUntilRefused(const std::vector<std::pair<FileHeader, Bytes>>& files) {
        try {
            for (const auto& [header, bytes] : files) {
                sendFile(header, bytes);
            }
        } catch (const StreamError&) {
        }
    }
    void sendFrame(const Bytes& payload) { sender_.sendFrame(payload); }
    void sendRaw(const Bytes& bytes) { sender_.sendRaw(bytes); }
    Bytes receiveFrame() { return sender_.receiveFrame(); }
    Ack receiveAck() { return WireMessage::decode<Ack>(receiveFrame()); }

    /// Ends the sender's side and waits (until the deadline) for run() to return.
    bool finishAndWait() {
        streams_.first->finishSending();
        return done_.wait_for(deadline) == std::future_status::ready;
    }
    /// Frames still readable after the server has finished.
    std::vector<Bytes> remainingFrames() {
        std::vector<Bytes> frames;
        try {
            while (true) {
                frames.push_back(receiveFrame());
            }
        } catch (const StreamError&) {
        }
        return frames;
    }
    /// Acknowledgements still readable after the server has finished.
    std::vector<Ack> remainingAcks() {
        std::vector<Ack> acks;
        for (const Bytes& frame : remainingFrames()) {
            acks.push_back(WireMessage::decode<Ack>(frame));
        }
        return acks;
    }
    std::vector<TransferServer::Event> events() {
        const std::lock_guard lock(eventsMutex_);
        return events_;
    }

private:
    std::pair<std::shared_ptr<MemoryStream>, std::shared_ptr<MemoryStream>> streams_;
    FrameChannel sender_;
    FrameChannel receiver_;
    TransferServer server_;
    std::future<void> done_;
    std::mutex eventsMutex_;
    std::vector<TransferServer::Event> events_;
    std::jthread watchdog_;
};

/// A recording saver, a temporary folder for the server and the log in
/// memory; start() opens the session.
class TransferServerTest : public ::testing::Test {
protected:
    TransferServerTest() : previousSink_(KVLog::setSink(log)) {}
    ~TransferServerTest() override { KVLog::setSink(previousSink_); }
    ServerSession& start(const SessionHeader& header = {}) {
        session_.emplace(saver, temporaryDirectory);
        session_->sendSession(header);
        return *session_;
    }

    TemporaryFolder temporary;
    fs::path temporaryDirectory = temporary.path();
    RecordingSaver saver;
    const std::shared_ptr<KVLog::MemorySink> log = std::make_shared<KVLog::MemorySink>();

private:
    std::shared_ptr<KVLog::Sink> previousSink_;
    std::optional<ServerSession> session_;
};

Ack okAck(const std::string& name) {
    return Ack{.name = name, .status = Ack::Status::ok};
}
Ack errorAck(const std::string& name, const std::string& message) {
    return Ack{.name = name, .status = Ack::Status::error, .message = message};
}

TEST_F(TransferServerTest, SavesVerifiedFilesByteForByteAndLeavesNoTemporaryFile) {
    ServerSession& session = start(SessionHeader{.albumName = "Trip"});
    const Bytes big = pattern(1'048'577, 1); // one byte more than a piece
    session.sendFile(headerFor("big.jpg", big), big);
    session.sendFile(headerFor("empty.png", {}), {});
    const Bytes small = pattern(1000, 2);
    session.sendFile(headerFor("clip.mov", small), small);

    EXPECT_EQ(session.receiveAck(), okAck("big.jpg"));
    EXPECT_EQ(session.receiveAck(), okAck("empty.png"));
    EXPECT_EQ(session.receiveAck(), okAck("clip.mov"));
    ASSERT_TRUE(session.finishAndWait());

    EXPECT_EQ(saver.contents, (std::map<std::string, Bytes>{
                                  {"big.jpg", big}, {"empty.png", {}}, {"clip.mov", small}}));
    ASSERT_EQ(session.events().size(), 3u);
    EXPECT_EQ(session.events()[1].name, "empty.png");
    EXPECT_EQ(session.events()[1].ack, okAck("empty.png"));
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(TransferServerTest, AnswersAChecksumMismatchAtOnceAndGoesOnWithTheNextFile) {
    ServerSession& session = start();
    const Bytes bytes = pattern(5000, 3);
    FileHeader corrupted = headerFor("a.jpg", bytes);
    corrupted.sha256[10] = corrupted.sha256[10] == '0' ? '1' : '0';
    session.sendFile(corrupted, bytes);
    FileHeader upperCase = headerFor("b.jpg", bytes);
    std::transform(upperCase.sha256.begin(), upperCase.sha256.end(), upperCase.sha256.begin(),
                   [](char c) { return static_cast<char>(std::toupper(c)); });
    session.sendFile(upperCase, bytes);
    FileHeader emptyWithWrongHash = headerFor("c.jpg", {});
    emptyWithWrongHash.sha256 = Checksum::sha256Hex(bytes);
    session.sendFile(emptyWithWrongHash, {});
    session.sendFile(headerFor("good.jpg", bytes), bytes);

    EXPECT_EQ(session.receiveAck(), errorAck("a.jpg", "checksum mismatch"));
    EXPECT_EQ(session.receiveAck(), errorAck("b.jpg", "checksum mismatch"));
    EXPECT_EQ(session.receiveAck(), errorAck("c.jpg", "checksum mismatch"));
    EXPECT_EQ(session.receiveAck(), okAck("good.jpg"));
    ASSERT_TRUE(session.finishAndWait());
    EXPECT_EQ(saver.contents.size(), 1u);
    EXPECT_EQ(saver.contents["good.jpg"], bytes);
    // Only outcomes of the saver are reported as events.
    ASSERT_EQ(session.events().size(), 1u);
    EXPECT_TRUE(temporary.fileNames().empty());

    using enum KVLog::Category;
    const auto records = log->records();
    ASSERT_EQ(records.size(), 9u);
    EXPECT_EQ(records.front(),
              (KVLog::Record{listener, KVLog::Level::normal, "ACCEPTED connection"}));
    const std::regex recv(R"(RECV (a|b|c|good)\.jpg 0\.0MB in=\d+ms rate=(\d+\.\dMB/s|)"
                          "\xE2\x80\x94)"); // or an em dash when no time passed
    for (const std::size_t i : {1u, 3u, 5u, 7u}) {
        EXPECT_EQ(records[i].category, net);
        EXPECT_EQ(records[i].level, KVLog::Level::normal);
        EXPECT_TRUE(std::regex_match(records[i].message, recv)) << records[i].message;
    }
    EXPECT_EQ(records[2], (KVLog::Record{net, KVLog::Level::error, "CHECKSUM-MISMATCH a.jpg"}));
    EXPECT_EQ(records[4], (KVLog::Record{net, KVLog::Level::error, "CHECKSUM-MISMATCH b.jpg"}));
    EXPECT_EQ(records[6], (KVLog::Record{net, KVLog::Level::error, "CHECKSUM-MISMATCH c.jpg"}));
    EXPECT_EQ(records.back().category, listener);
    EXPECT_TRUE(
        std::regex_match(records.back().message, std::regex(R"(READER ended after \d+\.\ds)")))
        << records.back().message;
}

TEST_F(TransferServerTest, ReportsTheSaversErrorsAndKeepsTheSessionGoing) {
    saver.rejected["full.jpg"] = "no space left";
    ServerSession& session = start();
    const Bytes bytes = pattern(10, 4);
    session.sendFile(headerFor("full.jpg", bytes), bytes);
    session.sendFile(headerFor("fine.jpg", bytes), bytes);
    EXPECT_EQ(session.receiveAck(), errorAck("full.jpg", "no space left"));
    EXPECT_EQ(session.receiveAck(), okAck("fine.jpg"));
    ASSERT_TRUE(session.finishAndWait());
    ASSERT_EQ(session.events().size(), 2u);
    EXPECT_EQ(session.events()[0].ack, errorAck("full.jpg", "no space left"));
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(TransferServerTest, SessionOfNoFilesBeginsFlushesAndReturns) {
    ServerSession& session =
        start(SessionHeader{.schemaVersion = 7, .direction = SessionHeader::Direction::phoneToMac});
    ASSERT_TRUE(session.finishAndWait());
    ASSERT_EQ(saver.sessions.size(), 1u);
    EXPECT_EQ(saver.sessions[0].schemaVersion, 7);
    EXPECT_TRUE(saver.paths.empty());
    EXPECT_EQ(saver.flushes, 1);
    EXPECT_TRUE(session.remainingAcks().empty());
}

// Outcomes a batching saver only settles at the end still reach the sender
// when the connection broke off in the middle of the next file.
TEST_F(TransferServerTest,
       ConnectionLostMidFileStillAcknowledgesEarlierFilesAndDropsThePartialOne) {
    saver.deferUntilFlush = true;
    ServerSession& session = start();
    const Bytes first = pattern(3000, 5);
    session.sendFile(headerFor("first.jpg", first), first);
    const Bytes second = pattern(3000, 6);
    session.sendFrame(WireMessage::encode(headerFor("second.jpg", second)));
    session.sendRaw(Bytes(second.begin(), second.begin() + 1000));
    ASSERT_TRUE(session.finishAndWait());

    EXPECT_EQ(session.remainingAcks(), std::vector<Ack>{okAck("first.jpg")});
    ASSERT_EQ(session.events().size(), 1u);
    EXPECT_EQ(saver.headers.size(), 1u);
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(TransferServerTest, NameWithASlashCannotBeOpenedAndEndsTheSession) {
    ServerSession& session = start();
    const Bytes bytes = pattern(100, 7);
    session.sendFilesUntilRefused(
        {{headerFor("../escape.jpg", bytes), bytes}, {headerFor("after.jpg", bytes), bytes}});
    EXPECT_EQ(session.receiveAck(), errorAck("../escape.jpg", "could not open temp file"));
    ASSERT_TRUE(session.finishAndWait());
    EXPECT_TRUE(session.remainingAcks().empty());
    EXPECT_TRUE(saver.paths.empty());
    EXPECT_FALSE(fs::exists(temporary.path().parent_path() / "escape.jpg"));
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(TransferServerTest, FilesOfTheSameNameGetTheirOwnTemporaryFiles) {
    ServerSession& session = start();
    const Bytes one = pattern(10, 8);
    const Bytes two = pattern(20, 9);
    session.sendFile(headerFor("IMG_1.jpg", one), one);
    session.sendFile(headerFor("IMG_1.jpg", two), two);
    EXPECT_EQ(session.receiveAck(), okAck("IMG_1.jpg"));
    EXPECT_EQ(session.receiveAck(), okAck("IMG_1.jpg"));
    ASSERT_TRUE(session.finishAndWait());
    ASSERT_EQ(saver.paths.size(), 2u);
    EXPECT_NE(saver.paths[0], saver.paths[1]);
    for (const auto& path : saver.paths) {
        EXPECT_EQ(path.parent_path(), temporary.path());
        const std::string name = path.filename().string();
        // 8-4-4-4-12 upper-case hex, a hyphen, then the name as sent.
        ASSERT_EQ(name.size(), 36 + 1 + 9) << name;
        EXPECT_EQ(name.substr(37), "IMG_1.jpg");
        EXPECT_EQ(name.find_first_not_of("0123456789ABCDEF-"), 37u) << name;
    }
    EXPECT_EQ(saver.contents["IMG_1.jpg"], two);
    EXPECT_TRUE(temporary.fileNames().empty());
}

/// Sets TMPDIR for as long as it lives.
class TmpdirSetting {
public:
    explicit TmpdirSetting(const fs::path& value) {
        if (const char* previous = std::getenv("TMPDIR")) {
            previous_ = previous;
        }
        ::setenv("TMPDIR", value.c_str(), 1);
    }
    ~TmpdirSetting() {
        previous_ ? ::setenv("TMPDIR", previous_->c_str(), 1) : ::unsetenv("TMPDIR");
    }
    TmpdirSetting(const TmpdirSetting&) = delete;
    TmpdirSetting& operator=(const TmpdirSetting&) = delete;

private:
    std::optional<std::string> previous_;
};

TEST_F(TransferServerTest, UsesTmpdirWhenNoFolderIsGiven) {
    const TmpdirSetting tmpdir(temporary.path());
    temporaryDirectory.clear();
    ServerSession& session = start();
    session.sendFile(headerFor("x.jpg", pattern(5, 1)), pattern(5, 1));
    EXPECT_EQ(session.receiveAck(), okAck("x.jpg"));
    ASSERT_TRUE(session.finishAndWait());
    ASSERT_EQ(saver.paths.size(), 1u);
    EXPECT_EQ(saver.paths[0].parent_path(), temporary.path());
}

TEST_F(TransferServerTest, WithoutAUsableTemporaryDirectoryAnswersCouldNotOpenTempFileAndEnds) {
    const fs::path notAFolder = temporary.path() / "plain-file";
    std::ofstream(notAFolder) << "x";
    const TmpdirSetting tmpdir(notAFolder);
    temporaryDirectory.clear();
    ServerSession& session = start();
    session.sendFilesUntilRefused({{headerFor("x.jpg", pattern(5, 1)), pattern(5, 1)},
                                   {headerFor("y.jpg", pattern(5, 2)), pattern(5, 2)}});
    EXPECT_EQ(session.receiveAck(), errorAck("x.jpg", "could not open temp file"));
    ASSERT_TRUE(session.finishAndWait());
    EXPECT_TRUE(session.remainingAcks().empty());
    EXPECT_TRUE(saver.paths.empty());
}

// A temporary file that cannot grow (a full disk) ends the session: the rest
// of that file's bytes are still in the stream, and it is never acknowledged.
TEST_F(TransferServerTest, AFullDiskMidFileEndsTheSessionAndLeavesNoTemporaryFile) {
    const Bytes fits = pattern(1000, 1);
    const Bytes tooLarge = pattern(300'000, 2);
    const testing::FileSizeLimit limit(64 * 1024);
    ServerSession& session = start();
    session.sendFile(headerFor("fits.jpg", fits), fits);
    EXPECT_EQ(session.receiveAck(), okAck("fits.jpg"));
    session.sendFilesUntilRefused(
        {{headerFor("large.mov", tooLarge), tooLarge}, {headerFor("after.jpg", fits), fits}});
    ASSERT_TRUE(session.finishAndWait());
    EXPECT_TRUE(session.remainingAcks().empty());
    ASSERT_EQ(saver.headers.size(), 1u);
    EXPECT_EQ(saver.contents["fits.jpg"], fits);
    EXPECT_TRUE(temporary.fileNames().empty());
}

// A message that cannot be put into JSON (not UTF-8) must not stop the
// acknowledgements that follow it.
TEST_F(TransferServerTest, AnAcknowledgementThatCannotBeEncodedGoesOutEmptyAndTheNextOnesFollow) {
    saver.rejected["odd.jpg"] = "disk says \xff\xfe";
    ServerSession& session = start();
    const Bytes bytes = pattern(10, 4);
    session.sendFile(headerFor("odd.jpg", bytes), bytes);
    session.sendFile(headerFor("fine.jpg", bytes), bytes);
    ASSERT_TRUE(session.finishAndWait());
    const std::vector<Bytes> frames = session.remainingFrames();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_TRUE(frames[0].empty());
    EXPECT_EQ(WireMessage::decode<Ack>(frames[1]), okAck("fine.jpg"));
    ASSERT_EQ(session.events().size(), 2u);
    EXPECT_EQ(session.events()[0].ack.message, "disk says \xff\xfe");
}

/// Runs `body` in a child process that cannot start a thread: as an ordinary
/// user whose process limit is already reached (root is exempt from the
/// limit, so root's child becomes nobody first). Returns the child's exit
/// status, or 77 when no such child could be made.
int runWithoutThreads(const std::function<int()>& body) {
    const pid_t child = ::fork();
    if (child < 0) {
        return 77;
    }
    if (child == 0) {
        const rlimit none{0, 0};
        if (::setrlimit(RLIMIT_NPROC, &none) != 0 ||
            (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0))) {
            std::_Exit(77);
        }
        try {
            std::thread([] {}).join();
            std::_Exit(77); // threads can still be started here
        } catch (const std::system_error&) {
        }
        std::_Exit(body());
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Without a thread for the acknowledgements the session still completes:
// they are all sent once the reader has finished.
TEST(TransferServer, WithNoThreadToSpareAcknowledgesOnceTheReaderHasEnded) {
    TemporaryFolder temporary;
    fs::permissions(temporary.path(), fs::perms::all); // the child may not be root
    const Bytes one = pattern(3000, 1);
    const Bytes two = pattern(10, 2);
    std::vector<Bytes> script{
        FrameCodec::encode(WireMessage::encode(SessionHeader{})),
        FrameCodec::encode(WireMessage::encode(headerFor("one.jpg", one))), one,
        FrameCodec::encode(WireMessage::encode(headerFor("two.jpg", two))), two};
    const int status = runWithoutThreads([&] {
        std::vector<std::string> saved;
        TestBatchSaver saver(
            [&](const fs::path&, const FileHeader& header) { saved.push_back(header.name); });
        auto stream = std::make_shared<ScriptedStream>(script);
        FrameChannel channel(stream);
        TransferServer(saver, temporary.path()).run(channel, {});
        std::vector<Ack> acks;
        for (const Bytes& frame : stream->sent) {
            ReceiveBuffer buffer;
            buffer.append(frame);
            acks.push_back(WireMessage::decode<Ack>(FrameCodec::decode(buffer).value()));
        }
        const bool right = saved == std::vector<std::string>{"one.jpg", "two.jpg"} &&
                           acks == std::vector<Ack>{okAck("one.jpg"), okAck("two.jpg")} &&
                           temporary.fileNames().empty();
        return right ? 0 : 1;
    });
    if (status == 77) {
        GTEST_SKIP() << "no child process could be kept from starting threads";
    }
    EXPECT_EQ(status, 0) << "the acknowledgements were not all sent, or files were left behind";
}

// A scripted connection shows how far the server reads before it gives up.
std::size_t receivesUntilTheServerStops(std::vector<Bytes> script) {
    TemporaryFolder temporary;
    RecordingSaver saver;
    auto stream = std::make_shared<ScriptedStream>(std::move(script));
    FrameChannel channel(stream);
    TransferServer(saver, temporary.path()).run(channel, {});
    EXPECT_TRUE(stream->sent.empty()) << "no acknowledgement expected";
    EXPECT_TRUE(temporary.fileNames().empty());
    return stream->receiveMaxima.size();
}

TEST(TransferServer, OversizedFileOrHeaderEndsTheSessionWithoutReadingFurther) {
    const Bytes session = FrameCodec::encode(WireMessage::encode(SessionHeader{}));
    const auto fileFrame = [](std::uint64_t count) {
        return FrameCodec::encode(
            WireMessage::encode(FileHeader{.name = "huge.mov", .byteCount = count, .sha256 = "x"}));
    };
    const Bytes someBytes = pattern(10, 1);
    // Exactly the limit is accepted: the server goes on to read the bytes
    // (three scripted receives, then the end of the stream).
    EXPECT_EQ(
        receivesUntilTheServerStops({session, fileFrame(TransferServer::maxFileBytes), someBytes}),
        4u);
    // One byte more ends the session straight after the header.
    EXPECT_EQ(receivesUntilTheServerStops(
                  {session, fileFrame(TransferServer::maxFileBytes + 1), someBytes}),
              2u);
    // A header frame announcing more than a message could need is refused
    // from its length prefix alone; exactly the bound is read on.
    EXPECT_EQ(receivesUntilTheServerStops({session, {0x00, 0x10, 0x00, 0x00}, someBytes}), 4u);
    EXPECT_EQ(receivesUntilTheServerStops({session, {0x00, 0x10, 0x00, 0x01}, someBytes}), 2u);
    EXPECT_EQ(receivesUntilTheServerStops({session, {0x7F, 0xFF, 0xFF, 0xFF}, someBytes}), 2u);
    EXPECT_EQ(receivesUntilTheServerStops({FrameCodec::encode(asBytes("not json"))}), 1u);
}

} // namespace
} // namespace kestrelvane
