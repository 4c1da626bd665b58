#include "KestrelvaneKit/receiving/TransferServer.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "support/EngineSession.h"
#include "support/FileSizeLimit.h"
#include "support/ScopedEnvironment.h"
#include "support/ScriptedStream.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"
#include "support/UnprivilegedChild.h"

#include <gtest/gtest.h>

#include <set>

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
using Files = std::vector<std::pair<FileHeader, Bytes>>;

/// A server session over a scripted stream, into a saver that records every
/// file it is handed (behind a FailingSaver). The server's temporary folder
/// lies inside a folder of the test's own, so that a file left in it, or
/// beside it, shows.
class TransferServerTest : public ::testing::Test {
protected:
    TransferServerTest() { fs::create_directory(scratch); }

    /// Runs a session of `files` (each header followed by the bytes given) to
    /// its end; the frames the server sent.
    std::vector<Bytes> serve(const Files& files, const FailingSaver::Cue& cue,
                             const fs::path& temporaryDirectory) {
        std::vector<Bytes> script{frameOf(SessionHeader{.albumName = "Trip"})};
        for (const auto& [header, bytes] : files) {
            script.push_back(frameOf(header));
            constexpr std::size_t piece = TransferServer::pieceBytes; // a receive's most
            for (std::size_t at = 0; at < bytes.size(); at += piece) {
                script.emplace_back(bytes.begin() + at,
                                    bytes.begin() + std::min(at + piece, bytes.size()));
            }
        }
        // Without a cue the recorder serves alone, as a child without threads needs.
        std::optional<FailingSaver> failing;
        BatchSaving& saver = cue.failing.empty() && !cue.holdOutcomes
                                 ? static_cast<BatchSaving&>(recorder)
                                 : failing.emplace(recorder, cue);
        auto stream = std::make_shared<ScriptedStream>(std::move(script));
        FrameChannel channel(stream);
        TransferServer(saver, temporaryDirectory).run(channel, [this](const auto& event) {
            events.push_back(event.ack);
        });
        begun = failing ? failing->begun : std::nullopt;
        return stream->sent;
    }
    void expectNoFileLeft() { EXPECT_EQ(filesUnder(outer.path()), std::vector<std::string>{}); }

    TemporaryFolder outer;
    const fs::path scratch = outer.path() / "scratch";
    std::vector<std::pair<std::string, Bytes>> saved; ///< each file handed over: name, bytes
    std::set<fs::path> places;                        ///< and where it was
    std::vector<Ack> events;
    std::optional<SessionHeader> begun; ///< what the saver was begun with, behind a FailingSaver
    DiscardingSaver recorder{[this](const fs::path& file, const FileHeader& header) {
        EXPECT_EQ(file.parent_path(), scratch); // the folder given, or $TMPDIR
        saved.emplace_back(header.name, readBytes(file));
        places.insert(file);
    }};
};

// Verified files reach the saver byte for byte, each in a temporary file of
// its own. A checksum mismatch is answered at once, the saver's errors when it
// reports them, and the session goes on; an outcome whose message cannot go
// into JSON (not UTF-8) goes out as an empty frame.
TEST_F(TransferServerTest, HandsVerifiedFilesOverAndAnswersEveryOtherFileWithItsError) {
    const Bytes big = pattern(TransferServer::pieceBytes + 1, 1); // one byte into a second piece
    const Bytes small = pattern(20, 3);
    FileHeader corrupted = headerFor("bad.jpg", big);
    corrupted.sha256[10] = corrupted.sha256[10] == '0' ? '1' : '0';
    FileHeader emptyWithWrongHash = headerFor("bad.png", small);
    emptyWithWrongHash.byteCount = 0;
    EXPECT_EQ(
        serve({{corrupted, big},
               {emptyWithWrongHash, {}},
               {headerFor("full.jpg", small), small},
               {headerFor("odd.jpg", small), small},
               {headerFor("big.jpg", big), big},
               {headerFor("empty.png", {}), {}},
               {headerFor("IMG_1.jpg", big), big},
               {headerFor("IMG_1.jpg", small), small}},
              {.failing = {{0, "no space left"}, {1, "disk says \xff\xfe"}}}, scratch),
        (std::vector<Bytes>{frameOf(errorAck("bad.jpg", "checksum mismatch")),
                            frameOf(errorAck("bad.png", "checksum mismatch")),
                            frameOf(errorAck("full.jpg", "no space left")), FrameCodec::encode({}),
                            frameOf(Ack{.name = "big.jpg"}), frameOf(Ack{.name = "empty.png"}),
                            frameOf(Ack{.name = "IMG_1.jpg"}), frameOf(Ack{.name = "IMG_1.jpg"})}));
    EXPECT_EQ(begun, SessionHeader{.albumName = "Trip"});
    // Only the saver's outcomes are events.
    ASSERT_EQ(events.size(), 6u);
    EXPECT_EQ(events[1], errorAck("odd.jpg", "disk says \xff\xfe"));
    EXPECT_EQ(saved,
              (std::vector<std::pair<std::string, Bytes>>{
                  {"big.jpg", big}, {"empty.png", {}}, {"IMG_1.jpg", big}, {"IMG_1.jpg", small}}));
    EXPECT_EQ(places.size(), saved.size()) << "each file in a temporary file of its own";
    expectNoFileLeft();
}

// The session ends in the middle of a file: a full disk (the rest of that
// file's bytes still in the stream) or a lost connection. The files before it
// are still acknowledged, though the saver settles its outcomes only at the end.
class EndingMidFile : public TransferServerTest, public ::testing::WithParamInterface<bool> {};

TEST_P(EndingMidFile, StillAcknowledgesTheEarlierFilesAndLeavesNoTemporaryFile) {
    const bool diskFull = GetParam();
    const auto limit = diskFull ? std::make_optional<FileSizeLimit>(64 * 1024) : std::nullopt;
    const Bytes first = pattern(1000, 5);
    const Bytes second = pattern(300'000, 6);
    EXPECT_EQ(serve({{headerFor("first.jpg", first), first},
                     {headerFor("second.mov", second), diskFull ? second : first},
                     {headerFor("after.jpg", first), first}},
                    {.holdOutcomes = true}, scratch),
              std::vector<Bytes>{frameOf(Ack{.name = "first.jpg"})});
    EXPECT_EQ(saved.size(), 1u);
    expectNoFileLeft();
}

INSTANTIATE_TEST_SUITE_P(Faults, EndingMidFile, ::testing::Bool(), [](const auto& diskFull) {
    return diskFull.param ? "DiskFull" : "ConnectionLost";
});

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
    const Bytes bytes = pattern(100, 7);
    const std::vector<Bytes> answers =
        place.opens
            ? std::vector<Bytes>{frameOf(Ack{.name = place.fileName}),
                                 frameOf(Ack{.name = "after.jpg"})}
            : std::vector<Bytes>{frameOf(errorAck(place.fileName, "could not open temp file"))};
    EXPECT_EQ(
        serve({{headerFor(place.fileName, bytes), bytes}, {headerFor("after.jpg", bytes), bytes}},
              {}, place.folderGiven ? scratch : fs::path()),
        answers);
    EXPECT_EQ(saved.size(), place.opens ? 2u : 0u);
    EXPECT_EQ(filesUnder(outer.path()), std::vector<std::string>{"plain-file"});
}

INSTANTIATE_TEST_SUITE_P(Places, TemporaryFile, ::testing::ValuesIn(places),
                         [](const auto& place) { return std::string(place.param.name); });

// Without a thread for the acknowledgements the session still completes:
// they are all sent once the reader has finished.
TEST_F(TransferServerTest, WithNoThreadToSpareAcknowledgesOnceTheReaderHasEnded) {
    for (const fs::path& folder : {outer.path(), scratch}) {
        fs::permissions(folder, fs::perms::all); // the child may not be root
    }
    const Bytes one = pattern(3000, 1);
    const Bytes two = pattern(10, 2);
    runInChild([&] {
        dropToNobody(true);
        EXPECT_EQ(
            serve({{headerFor("one.jpg", one), one}, {headerFor("two.jpg", two), two}}, {},
                  scratch),
            (std::vector<Bytes>{frameOf(Ack{.name = "one.jpg"}), frameOf(Ack{.name = "two.jpg"})}));
        EXPECT_EQ(saved.size(), 2u);
        expectNoFileLeft();
    });
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
    DiscardingSaver saver([](const fs::path& file, const FileHeader&) { ADD_FAILURE() << file; });
    auto stream = std::make_shared<ScriptedStream>(GetParam().script);
    FrameChannel channel(stream);
    TransferServer(saver, scratch.path()).run(channel, {});
    EXPECT_EQ(stream->receiveMaxima.size(), GetParam().receives);
    EXPECT_TRUE(stream->sent.empty()) << "no acknowledgement expected";
    EXPECT_TRUE(fs::is_empty(scratch.path()));
}

INSTANTIATE_TEST_SUITE_P(Headers, HeaderLimit, ::testing::ValuesIn(limitCases),
                         [](const auto& limit) { return std::string(limit.param.name); });

} // namespace
} // namespace kestrelvane
