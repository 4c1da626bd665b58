#include "KestrelvaneKit/receiving/TransferServer.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "support/EngineSession.h"
#include "support/FileSizeLimit.h"
#include "support/ScopedEnvironment.h"
#include "support/ScriptedStream.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"
#include "support/UnprivilegedChild.h"

#include <gtest/gtest.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

FileHeader headerFor(const std::string& name, const Bytes& bytes) {
    return FileHeader{
        .name = name, .byteCount = bytes.size(), .sha256 = Checksum::sha256Hex(bytes)};
}
Ack errorAck(const std::string& name, const std::string& message) {
    return Ack{.name = name, .status = Ack::Status::error, .message = message};
}
/// A server session, the test playing the sender, into a saver that records
/// every file it is handed (behind a FailingSaver). The server's temporary
/// folder lies inside a folder of the test's own, so that a file left in it,
/// or beside it, shows.
class TransferServerTest : public ::testing::Test {
protected:
    TransferServerTest() { fs::create_directory(scratch); }

    void start(const FailingSaver::Cue& cue = {}, const fs::path& temporaryDirectory = {}) {
        saver.emplace(recorder, cue);
        session.serve(*saver, temporaryDirectory);
        session.sender().sendFrame(WireMessage::encode(SessionHeader{}));
    }
    void expectNoFileLeft() { EXPECT_EQ(filesUnder(outer.path()), std::vector<std::string>{}); }

    struct Saved {
        fs::path path;
        std::string name;
        Bytes bytes;
    };
    TemporaryFolder outer;
    const fs::path scratch = outer.path() / "scratch";
    std::vector<Saved> saved;
    TestBatchSaver recorder{[this](const fs::path& file, const FileHeader& header) {
        saved.push_back({file, header.name, readBytes(file)});
    }};
    std::optional<FailingSaver> saver;
    EngineSession session;
};

TEST_F(TransferServerTest, HandsEachVerifiedFileOverByteForByteInATemporaryFileOfItsOwn) {
    start({}, scratch);
    const std::vector<std::pair<std::string, Bytes>> files{
        {"big.jpg", pattern(TransferServer::pieceBytes + 1, 1)}, // one byte into a second piece
        {"empty.png", {}},
        {"IMG_1.jpg", pattern(1000, 2)},
        {"IMG_1.jpg", pattern(20, 3)}};
    for (const auto& [name, bytes] : files) {
        session.sendFile(headerFor(name, bytes), bytes);
    }
    for (const auto& file : files) {
        EXPECT_EQ(session.receiveAck(), Ack{.name = file.first});
    }
    ASSERT_TRUE(session.finish());
    ASSERT_EQ(saved.size(), files.size());
    ASSERT_EQ(session.events().size(), files.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(saved[i].name, files[i].first);
        EXPECT_EQ(saved[i].bytes, files[i].second) << files[i].first;
        EXPECT_EQ(saved[i].path.parent_path(), scratch);
        EXPECT_EQ(session.events()[i].ack, Ack{.name = files[i].first});
    }
    EXPECT_NE(saved[2].path, saved[3].path);
    expectNoFileLeft();
}

TEST_F(TransferServerTest, AnswersAChecksumMismatchAtOnceAndGoesOnWithTheNextFile) {
    start({}, scratch);
    const Bytes bytes = pattern(5000, 3);
    FileHeader corrupted = headerFor("a.jpg", bytes);
    corrupted.sha256[10] = corrupted.sha256[10] == '0' ? '1' : '0';
    FileHeader emptyWithWrongHash = headerFor("c.jpg", bytes);
    emptyWithWrongHash.byteCount = 0;
    session.sendFile(corrupted, bytes);
    session.sendFile(emptyWithWrongHash, {});
    session.sendFile(headerFor("good.jpg", bytes), bytes);

    EXPECT_EQ(session.receiveAck(), errorAck("a.jpg", "checksum mismatch"));
    EXPECT_EQ(session.receiveAck(), errorAck("c.jpg", "checksum mismatch"));
    EXPECT_EQ(session.receiveAck(), Ack{.name = "good.jpg"});
    ASSERT_TRUE(session.finish());
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_EQ(saved[0].bytes, bytes);
    // Only outcomes of the saver are reported as events.
    EXPECT_EQ(session.events().size(), 1u);
    expectNoFileLeft();
}

// An outcome whose message cannot go into JSON (not UTF-8) goes out as an
// empty frame, and the acknowledgements after it still follow.
TEST_F(TransferServerTest, AcknowledgesTheSaversErrorsAndGoesOnEvenPastOneThatCannotBeEncoded) {
    start({.failing = {{0, "no space left"}, {1, "disk says \xff\xfe"}}}, scratch);
    const Bytes bytes = pattern(10, 4);
    for (const char* name : {"full.jpg", "odd.jpg", "fine.jpg"}) {
        session.sendFile(headerFor(name, bytes), bytes);
    }
    ASSERT_TRUE(session.finish());
    const std::vector<Bytes> frames = session.remainingFrames();
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(WireMessage::decode<Ack>(frames[0]), errorAck("full.jpg", "no space left"));
    EXPECT_TRUE(frames[1].empty());
    EXPECT_EQ(WireMessage::decode<Ack>(frames[2]), Ack{.name = "fine.jpg"});
    ASSERT_EQ(session.events().size(), 3u);
    EXPECT_EQ(session.events()[1].ack, errorAck("odd.jpg", "disk says \xff\xfe"));
    expectNoFileLeft();
}

// Outcomes a batching saver only settles at the end still reach the sender
// when the connection broke off in the middle of the next file.
TEST_F(TransferServerTest,
       ConnectionLostMidFileStillAcknowledgesEarlierFilesAndDropsThePartialOne) {
    start({.holdOutcomes = true}, scratch);
    const Bytes first = pattern(3000, 5);
    const Bytes second = pattern(3000, 6);
    session.sendFile(headerFor("first.jpg", first), first);
    session.sender().sendFrame(WireMessage::encode(headerFor("second.jpg", second)));
    session.sender().sendRaw(ByteView(second).first(1000));
    ASSERT_TRUE(session.finish());
    EXPECT_EQ(session.remainingFrames(),
              std::vector<Bytes>{WireMessage::encode(Ack{.name = "first.jpg"})});
    EXPECT_EQ(saved.size(), 1u);
    expectNoFileLeft();
}

// A temporary file that cannot grow (a full disk) ends the session: the rest
// of that file's bytes are still in the stream, and it is never acknowledged.
TEST_F(TransferServerTest, AFullDiskMidFileEndsTheSessionAndLeavesNoTemporaryFile) {
    const Bytes fits = pattern(1000, 1);
    const Bytes tooLarge = pattern(300'000, 2);
    const FileSizeLimit limit(64 * 1024);
    start({}, scratch);
    session.sendFile(headerFor("fits.jpg", fits), fits);
    EXPECT_EQ(session.receiveAck(), Ack{.name = "fits.jpg"});
    session.sendFilesUntilRefused(
        {{headerFor("large.mov", tooLarge), tooLarge}, {headerFor("after.jpg", fits), fits}});
    ASSERT_TRUE(session.finish());
    EXPECT_TRUE(session.remainingFrames().empty());
    EXPECT_EQ(saved.size(), 1u);
    expectNoFileLeft();
}

/// Where the server is to put a file's temporary file.
struct Place {
    const char* name;
    std::string fileName;
    bool folderGiven;   ///< else $TMPDIR
    const char* tmpdir; ///< inside the test's folder
    bool opens;
};

const Place places[] = {
    // After the UUID a name with a "/" points into no folder, never out of this one.
    {"ANameWithASlashCannotBeOpened", "../escape.jpg", true, "scratch", false},
    {"TmpdirWhenNoFolderIsGiven", "x.jpg", false, "scratch", true},
    {"NoUsableTemporaryDirectory", "x.jpg", false, "plain-file", false},
};

class TemporaryFile : public TransferServerTest, public ::testing::WithParamInterface<Place> {};

TEST_P(TemporaryFile, OpensOrIsAnsweredCouldNotOpenTempFileAndEndsTheSession) {
    const Place& place = GetParam();
    writeFile(outer.path() / "plain-file", "x");
    const ScopedEnvironment tmpdir("TMPDIR", (outer.path() / place.tmpdir).string());
    start({}, place.folderGiven ? scratch : fs::path());
    const Bytes bytes = pattern(100, 7);
    session.sendFilesUntilRefused(
        {{headerFor(place.fileName, bytes), bytes}, {headerFor("after.jpg", bytes), bytes}});
    EXPECT_EQ(session.receiveAck(), place.opens
                                        ? Ack{.name = place.fileName}
                                        : errorAck(place.fileName, "could not open temp file"));
    ASSERT_TRUE(session.finish());
    if (place.opens) {
        EXPECT_EQ(session.remainingFrames(),
                  std::vector<Bytes>{WireMessage::encode(Ack{.name = "after.jpg"})});
        ASSERT_EQ(saved.size(), 2u);
        EXPECT_EQ(saved[0].path.parent_path(), scratch);
    } else {
        EXPECT_TRUE(session.remainingFrames().empty());
        EXPECT_TRUE(saved.empty());
    }
    EXPECT_EQ(filesUnder(outer.path()), std::vector<std::string>{"plain-file"});
}

INSTANTIATE_TEST_SUITE_P(Places, TemporaryFile, ::testing::ValuesIn(places),
                         [](const auto& place) { return std::string(place.param.name); });

// Without a thread for the acknowledgements the session still completes:
// they are all sent once the reader has finished.
TEST(TransferServer, WithNoThreadToSpareAcknowledgesOnceTheReaderHasEnded) {
    TemporaryFolder scratch;
    fs::permissions(scratch.path(), fs::perms::all); // the child may not be root
    const Bytes one = pattern(3000, 1);
    const Bytes two = pattern(10, 2);
    const int status = runUnprivileged(
        [&] {
            std::vector<std::string> saved;
            TestBatchSaver saver(
                [&](const fs::path&, const FileHeader& header) { saved.push_back(header.name); });
            auto stream = std::make_shared<ScriptedStream>(
                std::vector<Bytes>{frameOf(SessionHeader{}), frameOf(headerFor("one.jpg", one)),
                                   one, frameOf(headerFor("two.jpg", two)), two});
            FrameChannel channel(stream);
            TransferServer(saver, scratch.path()).run(channel, {});
            EXPECT_EQ(saved, (std::vector<std::string>{"one.jpg", "two.jpg"}));
            EXPECT_EQ(stream->sent, (std::vector<Bytes>{frameOf(Ack{.name = "one.jpg"}),
                                                        frameOf(Ack{.name = "two.jpg"})}));
            EXPECT_TRUE(scratch.fileNames().empty());
        },
        true);
    if (status == noUnprivilegedChild) {
        GTEST_SKIP() << "no child process could be kept from starting threads";
    }
    EXPECT_EQ(status, 0);
}

/// A header at or past a limit, and how many scripted receives the server
/// makes (the last one meets the end when it reads on past the header).
struct LimitCase {
    const char* name;
    std::vector<Bytes> script;
    std::size_t receives;
};

Bytes fileFrame(std::uint64_t byteCount) {
    return frameOf(FileHeader{.name = "huge.mov", .byteCount = byteCount, .sha256 = "x"});
}
const Bytes start = frameOf(SessionHeader{});
const Bytes some = pattern(10, 1);
constexpr auto maxFile = TransferServer::maxFileBytes;

const LimitCase limitCases[] = {
    {"AFileOfTheLargestSizeIsReadOn", {start, fileFrame(maxFile), some}, 4},
    {"AFileOneByteLarger", {start, fileFrame(maxFile + 1), some}, 2},
    // A header frame announcing more than a message could need is refused
    // from its length prefix alone.
    {"AHeaderFrameOfTheLargestSizeIsReadOn", {start, {0x00, 0x10, 0x00, 0x00}, some}, 4},
    {"AHeaderFrameOneByteLarger", {start, {0x00, 0x10, 0x00, 0x01}, some}, 2},
    {"AHeaderFrameOf2GiB", {start, {0x7F, 0xFF, 0xFF, 0xFF}, some}, 2},
    {"ASessionHeaderThatIsNotJson", {FrameCodec::encode(asBytes("not json"))}, 1},
};

class HeaderLimit : public ::testing::TestWithParam<LimitCase> {};

TEST_P(HeaderLimit, EndsTheSessionUnreadPastTheLimitOnly) {
    TemporaryFolder scratch;
    TestBatchSaver saver([](const fs::path& file, const FileHeader&) { ADD_FAILURE() << file; });
    auto stream = std::make_shared<ScriptedStream>(GetParam().script);
    FrameChannel channel(stream);
    TransferServer(saver, scratch.path()).run(channel, {});
    EXPECT_EQ(stream->receiveMaxima.size(), GetParam().receives);
    EXPECT_TRUE(stream->sent.empty()) << "no acknowledgement expected";
    EXPECT_TRUE(scratch.fileNames().empty());
}

INSTANTIATE_TEST_SUITE_P(Headers, HeaderLimit, ::testing::ValuesIn(limitCases),
                         [](const auto& limit) { return std::string(limit.param.name); });

} // namespace
} // namespace kestrelvane
