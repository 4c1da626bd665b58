// Faults within one session between the two engines, and what must hold
// afterwards: both engines return, no temporary file is left, every file the
// sender was told is saved is saved byte for byte, and sending the rest again
// completes the batch with nothing lost and nothing doubled. The connection
// drops at every stage, on either end; a receiver hangs up without reading;
// files change between planning and sending, or while they are sent.
#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/sending/PreparedFile.h"
#include "support/CaughtError.h"
#include "support/EngineSession.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"
#include "support/UnprivilegedChild.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sys/stat.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using Direction = FailingStream::Direction;
using Failure = FailingStream::Failure;

/// Sends again what `broken` did not report saved: that completes the batch.
void expectResumeCompletes(const EngineSession& broken, const std::vector<fs::path>& files,
                           const fs::path& source, const fs::path& destination,
                           const fs::path& scratch) {
    const auto rest = broken.notReportedOk(files);
    EngineSession resumed;
    ASSERT_TRUE(resumed.sendToFolder(rest, destination, scratch));
    EXPECT_EQ(resumed.error, std::nullopt);
    EXPECT_EQ(resumed.reportedOk().size(), rest.size());
    EXPECT_EQ(filesUnder(destination), filesUnder(source)) << "lost or doubled";
    EXPECT_EQ(filesNotAsIn(destination, source), std::vector<std::string>{});
    EXPECT_TRUE(fs::is_empty(scratch)) << "temporary files left";
}

/// Where each part of a session lies on the wire, in bytes from the start of
/// each direction, for a batch of files: on the sender's side where each
/// file's header frame and its bytes start, and how many bytes it has.
struct Wire {
    explicit Wire(const std::vector<fs::path>& files) {
        for (const auto& file : files) {
            const auto header = PreparedFile::prepare(file, MediaType::photo).header();
            headerOf.push_back(bytesOf.empty() ? sessionFrame : bytesOf.back() + bytes.back());
            bytesOf.push_back(headerOf.back() + frameOf(header).size());
            bytes.push_back(header.byteCount);
        }
    }
    std::uint64_t sessionFrame = frameOf(SessionHeader{}).size();
    std::vector<std::uint64_t> headerOf, bytesOf, bytes;
    std::uint64_t ackFrame = frameOf(Ack{.name = "IMG_0001.jpg"}).size(); ///< every name as long
};

using W = const Wire&;
using enum Side;
using enum FailingStream::Direction;
using enum FailingStream::Failure;

struct Stage {
    const char* name;
    Side side;
    Direction direction;
    std::function<std::uint64_t(W)> at;
    Failure failure = closed;
    bool saverHoldsOutcomes = false;
};

// What the side's own connection carries: the sender sends files and
// receives acknowledgements, the receiver the other way round.
const Stage stages[] = {
    {"SenderInSessionHeader", sender, sending, [](W w) { return w.sessionFrame / 2; }},
    {"SenderInHeaderFrame", sender, sending,
     [](W w) { return (w.headerOf[1] + w.bytesOf[1]) / 2; }},
    {"SenderInLengthPrefix", sender, sending, [](W w) { return w.headerOf[2] + 2; }},
    {"SenderBetweenHeaderAndBytes", sender, sending, [](W w) { return w.bytesOf[1]; }},
    {"SenderMidBytes", sender, sending, [](W w) { return w.bytesOf[1] + w.bytes[1] / 2; }},
    {"SenderMidBytesWithReset", sender, sending, [](W w) { return w.bytesOf[1] + w.bytes[1] / 3; },
     reset},
    {"SenderMidBytesWhileSaverHoldsOutcomes", sender, sending,
     [](W w) { return w.bytesOf[2] + 10; }, closed, true},
    {"SenderBeforeFirstAck", sender, receiving, [](W) { return 0; }},
    {"SenderInFirstAck", sender, receiving, [](W w) { return w.ackFrame / 2; }},
    {"SenderAfterFirstAck", sender, receiving, [](W w) { return w.ackFrame; }},
    {"SenderAfterSecondAck", sender, receiving, [](W w) { return 2 * w.ackFrame; }},
    {"ReceiverInSessionHeader", receiver, receiving, [](W w) { return w.sessionFrame / 2; }},
    {"ReceiverInHeaderFrame", receiver, receiving,
     [](W w) { return (w.headerOf[1] + w.bytesOf[1]) / 2; }},
    {"ReceiverBetweenHeaderAndBytes", receiver, receiving, [](W w) { return w.bytesOf[1]; }},
    {"ReceiverMidBytes", receiver, receiving, [](W w) { return w.bytesOf[1] + w.bytes[1] / 2; }},
    {"ReceiverMidBytesWithReset", receiver, receiving, [](W w) { return w.bytesOf[2] + 1; }, reset},
    {"ReceiverMidBytesWhileSaverHoldsOutcomes", receiver, receiving,
     [](W w) { return w.bytesOf[2] + w.bytes[2] / 2; }, closed, true},
    {"ReceiverBeforeFirstAck", receiver, sending, [](W) { return 0; }},
    {"ReceiverInFirstAck", receiver, sending, [](W w) { return w.ackFrame - 1; }},
    {"ReceiverAfterFirstAck", receiver, sending, [](W w) { return w.ackFrame; }},
    {"ReceiverAfterSecondAck", receiver, sending, [](W w) { return 2 * w.ackFrame; }},
};

class ConnectionDrop : public ::testing::TestWithParam<Stage> {
protected:
    // Three photos; the second is larger than one refill of the channel, so a
    // cut in its bytes falls between refills.
    TemporaryFolder source, destination, scratch;
    const std::vector<fs::path> files{
        writeFile(source.path() / "IMG_0001.jpg", pattern(40'000, 1)),
        writeFile(source.path() / "IMG_0002.jpg", pattern(300'000, 2)),
        writeFile(source.path() / "IMG_0003.jpg", pattern(70'000, 3))};
};

TEST_P(ConnectionDrop, LosesNothingAndTheResumedSendCompletesTheBatchOnce) {
    const Stage& stage = GetParam();
    EngineSession broken(
        {.cut = FailingStream::Cut{stage.direction, stage.at(Wire(files)), stage.failure},
         .cutSide = stage.side});
    ASSERT_TRUE(broken.sendToFolder(files, destination.path(), scratch.path(),
                                    {.holdOutcomes = stage.saverHoldsOutcomes}))
        << "an engine hung";
    EXPECT_TRUE(broken.wasCut()) << "the connection never reached the cut";
    if (!broken.error) {
        EXPECT_EQ(broken.returned.size(), broken.progress().size());
    }
    // What the sender was told is saved is saved, and is among what the
    // receiver saved; a partial file would show as a namesake after the resend.
    EXPECT_LT(broken.reportedOk().size(), files.size()) << "the cut cost nothing";
    for (const auto& step : broken.progress()) {
        EXPECT_EQ(step.ack.status, Ack::Status::ok) << step.ack.name;
        EXPECT_EQ(broken.receiverOk().count(step.ack.name), 1u) << step.ack.name;
        EXPECT_TRUE(fs::exists(destination.path() / step.ack.name)) << step.ack.name;
    }
    expectResumeCompletes(broken, files, source.path(), destination.path(), scratch.path());
}

INSTANTIATE_TEST_SUITE_P(AtEveryStage, ConnectionDrop, ::testing::ValuesIn(stages),
                         [](const auto& stage) { return std::string(stage.param.name); });

// The resume extension: a session cut in the middle of a large file leaves
// its beginning with the receiver, and the next send sends only the rest; a
// beginning that is not the file's own is never built on; a batch the
// receiver holds is settled without a byte of it sent. Whatever happens, the
// saved files are byte for byte the originals, once each.
struct Resumption {
    const char* name;
    bool tamperWithPartial;
};

class ResumeExtension : public ::testing::TestWithParam<Resumption> {
protected:
    TemporaryFolder source, destination, scratch, partials;
    const std::vector<fs::path> files{
        writeFile(source.path() / "IMG_0001.jpg", pattern(40'000, 1)),
        writeFile(source.path() / "VID_0002.mov", pattern(3'000'000, 2)),
        writeFile(source.path() / "IMG_0003.jpg", pattern(70'000, 3))};
    const SessionHeader announced{.resume = 1, .device = std::string(64, 'a')};

    /// One session of the extension with `sending`; false if an engine hung.
    bool sendAgain(EngineSession& session, const std::vector<fs::path>& sending) {
        session.partials = partials.path();
        return session.sendToFolder(sending, destination.path(), scratch.path(), {}, announced);
    }
};

TEST_P(ResumeExtension, SendsOnlyWhatTheReceiverLacksAndSavesEveryFileWhole) {
    const std::uint64_t video = 3'000'000;
    // The cut falls at about 90 % of the video's bytes.
    EngineSession broken({.cut = FailingStream::Cut{sending, 40'000 + video * 9 / 10}});
    ASSERT_TRUE(sendAgain(broken, files));
    ASSERT_TRUE(broken.wasCut());
    ASSERT_EQ(filesUnder(partials.path()).size(), 2u) << "the video's beginning was not kept";
    if (GetParam().tamperWithPartial) {
        for (const auto& name : filesUnder(partials.path())) {
            if (name.ends_with(".part")) {
                std::fstream part(partials.path() / name, std::ios::in | std::ios::out);
                part.seekp(1000);
                part.put('\x7f');
            }
        }
    }

    EngineSession resumed;
    const auto rest = broken.notReportedOk(files);
    ASSERT_TRUE(sendAgain(resumed, rest));
    EXPECT_EQ(resumed.error, std::nullopt);
    std::uint64_t sent = 0;
    for (const auto& step : resumed.progress()) {
        sent += step.byteCount;
        EXPECT_EQ(step.ack.status, Ack::Status::ok) << step.ack.name;
        if (step.fileName == "VID_0002.mov") {
            EXPECT_EQ(step.heldBytes > video / 2, !GetParam().tamperWithPartial);
            EXPECT_EQ(step.byteCount + step.heldBytes, video);
        }
    }
    if (!GetParam().tamperWithPartial) {
        EXPECT_LE(sent, 70'000 + video * 12 / 100) << "the video was not resumed";
    }
    EXPECT_EQ(filesNotAsIn(destination.path(), source.path()), std::vector<std::string>{});
    EXPECT_EQ(filesUnder(destination.path()), filesUnder(source.path()));
    EXPECT_EQ(filesUnder(partials.path()), std::vector<std::string>{}) << "a partial was left";

    EngineSession again;
    ASSERT_TRUE(sendAgain(again, files));
    EXPECT_EQ(again.reportedOk().size(), files.size());
    for (const auto& step : again.progress()) {
        EXPECT_EQ(step.byteCount, 0u) << step.fileName << " was sent again";
        EXPECT_EQ(step.heldBytes, fs::file_size(step.path)) << step.fileName;
    }
    EXPECT_EQ(filesUnder(destination.path()), filesUnder(source.path())) << "doubled";
    EXPECT_EQ(again.receiverOk().size(), files.size());

    // A sender that does not announce the extension hears nothing of it.
    EngineSession plain;
    plain.partials = partials.path();
    ASSERT_TRUE(plain.sendToFolder(files, destination.path(), scratch.path()));
    EXPECT_EQ(plain.error, std::nullopt);
    EXPECT_EQ(plain.reportedOk().size(), files.size());
}

INSTANTIATE_TEST_SUITE_P(WithPartial, ResumeExtension,
                         ::testing::Values(Resumption{"Intact", false},
                                           Resumption{"Tampered", true}),
                         [](const auto& resumption) { return std::string(resumption.param.name); });

// A sender that does not announce the extension, whatever unknown keys it
// writes, hears from a receiver that speaks it exactly what a version-1
// receiver says: one acknowledgement per file, byte for byte.
TEST(ResumeExtension, AVersionOneSenderHearsTheVersionOneConversation) {
    TemporaryFolder destination, scratch, partials;
    EngineSession session;
    session.partials = partials.path();
    session.serveFolder(destination.path(), scratch.path());
    const auto json = [](const std::string& text) { return asBytes(text); };
    const Bytes photo = pattern(5000, 7);
    FrameChannel& sender = session.sender();
    sender.sendFrame(json(R"({"schemaVersion":1,"direction":"macToPhone","resume":"yes"})"));
    sender.sendFrame(json(R"({"name":"IMG_0001.jpg","mediaType":"photo","byteCount":5000,)"
                          R"("sha256":")" +
                          Checksum::sha256Hex(photo) + R"(","offer":"no","from":[1]})"));
    sender.sendRaw(photo);
    EXPECT_EQ(sender.receiveFrame(FrameChannel::maxMessageBytes),
              WireMessage::encode(Ack{.name = "IMG_0001.jpg", .status = Ack::Status::ok}));
    session.endSending(Side::sender);
    EXPECT_TRUE(session.finish());
    EXPECT_EQ(readBytes(destination.path() / "IMG_0001.jpg"), photo);
    EXPECT_EQ(filesUnder(partials.path()), std::vector<std::string>{});
}

// A receiver that lies about the beginning it holds (longer than the file, or
// not the file's own) is never built on: the file goes whole, from byte 0.
TEST(ResumeExtension, ALyingReceiverIsSentTheWholeFile) {
    TemporaryFolder folder;
    const Bytes video = pattern(300'000, 5);
    const fs::path path = writeFile(folder.path() / "VID.mov", video);
    const auto partial = [](std::uint64_t bytes, const Bytes& prefix) {
        return Holding{.name = "VID.mov",
                       .kind = Holding::Kind::partial,
                       .bytes = bytes,
                       .prefixSha256 = Checksum::sha256Hex(prefix)};
    };
    for (const Holding& lie : {partial(video.size() + 1, video), partial(1000, pattern(1000, 9)),
                               Holding{.name = "VID.mov", .kind = Holding::Kind::partial}}) {
        EngineSession session;
        FrameChannel& receiver = session.receiverChannel();
        session.send({path}, SessionHeader{.resume = 1, .device = std::string(64, 'b')});
        const auto frame = [&] {
            return WireMessage::decode<FileHeader>(receiver.receiveFrame(1 << 16));
        };
        receiver.receiveFrame(1 << 16); // the session header
        ASSERT_TRUE(frame().offer);
        receiver.sendFrame(WireMessage::encode(lie));
        const FileHeader header = frame();
        EXPECT_EQ(header.from, std::nullopt) << lie.bytes.value_or(0);
        Bytes sent(header.byteCount);
        receiver.receiveRawInto(sent);
        EXPECT_EQ(sent, video);
        receiver.sendFrame(WireMessage::encode(Ack{.name = "VID.mov", .status = Ack::Status::ok}));
        EXPECT_TRUE(session.finish());
        EXPECT_EQ(session.error, std::nullopt);
    }
}

// A sender that resumes a beginning it was not offered (another device's, one
// longer than the receiver holds, one it never offered) ends its session, and
// one that sends a tail that does not finish the file has it refused: whatever
// it does, nothing wrong is saved, and the owner still resumes its own.
TEST(ResumeExtension, ASenderResumingWhatIsNotItsOwnSavesNothingWrong) {
    TemporaryFolder destination, scratch, partials;
    const Bytes video = pattern(400'000, 6);
    const std::string owner(64, 'a'), other(64, 'c');
    const auto header = [&](bool offer, std::optional<std::uint64_t> from = {}) {
        return WireMessage::encode(FileHeader{.name = "VID.mov",
                                              .mediaType = MediaType::video,
                                              .byteCount = video.size(),
                                              .sha256 = Checksum::sha256Hex(video),
                                              .offer = offer,
                                              .from = from});
    };
    /// One session played by the test as `device`; what the receiver answered
    /// to an offer (when `offers`), and whether it said anything after the file.
    struct Played {
        std::optional<Holding> holding;
        std::optional<Ack> ack;
    };
    const auto play = [&](const std::string& device, bool offers, std::uint64_t from,
                          const Bytes& tail, bool hangUp) {
        EngineSession session;
        session.partials = partials.path();
        session.serveFolder(destination.path(), scratch.path());
        FrameChannel& sender = session.sender();
        Played played;
        try {
            sender.sendFrame(WireMessage::encode(SessionHeader{.resume = 1, .device = device}));
            if (offers) {
                sender.sendFrame(header(true));
                played.holding = WireMessage::decode<Holding>(sender.receiveFrame(1 << 16));
            }
            sender.sendFrame(header(false, from == 0 ? std::nullopt : std::optional(from)));
            sender.sendRaw(tail);
            if (hangUp) {
                session.endSending(Side::sender);
            } else {
                played.ack = WireMessage::decode<Ack>(sender.receiveFrame(1 << 16));
            }
        } catch (const StreamError&) {
            // the receiver ended the session
        }
        EXPECT_TRUE(session.finish());
        return played;
    };
    const auto from = [&](std::size_t offset) {
        return Bytes(video.begin() + offset, video.end());
    };

    // The owner's session breaks after 300,000 bytes: the receiver keeps them.
    play(owner, true, 0, Bytes(video.begin(), video.begin() + 300'000), true);
    const Holding held{.name = "VID.mov",
                       .kind = Holding::Kind::partial,
                       .bytes = 300'000,
                       .prefixSha256 =
                           Checksum::sha256Hex(Bytes(video.begin(), video.begin() + 300'000))};

    const auto another = play(other, true, 300'000, from(300'000), false);
    EXPECT_EQ(another.holding, (Holding{.name = "VID.mov", .kind = Holding::Kind::none}));
    EXPECT_EQ(another.ack, std::nullopt) << "another device's partial was built on";
    EXPECT_EQ(play(owner, true, 300'001, from(300'001), false).ack, std::nullopt);
    EXPECT_EQ(play(owner, false, 300'000, from(300'000), false).ack, std::nullopt);
    Bytes wrongTail = from(300'000);
    wrongTail[10] ^= 1;
    const auto wrong = play(owner, true, 300'000, wrongTail, false);
    EXPECT_EQ(wrong.holding, held);
    ASSERT_TRUE(wrong.ack);
    EXPECT_EQ(wrong.ack->status, Ack::Status::error);
    EXPECT_EQ(filesUnder(destination.path()), std::vector<std::string>{});

    // The owner starts again from nothing, and the file is saved whole.
    const auto whole = play(owner, true, 0, video, false);
    ASSERT_TRUE(whole.ack);
    EXPECT_EQ(whole.ack->status, Ack::Status::ok);
    EXPECT_EQ(readBytes(destination.path() / "VID.mov"), video);
}

// The sender may offer the next file before it sends the current one: the
// receiver answers both offers at once, in order; a third offer before the
// first file ends the session.
TEST(ResumeExtension, OneOfferAheadIsAnsweredAtOnceAndNoMore) {
    TemporaryFolder destination, scratch, partials;
    EngineSession session;
    session.partials = partials.path();
    session.serveFolder(destination.path(), scratch.path());
    FrameChannel& sender = session.sender();
    const auto headerOf = [](const std::string& name, const Bytes& bytes, bool offer) {
        return FileHeader{.name = name,
                          .byteCount = bytes.size(),
                          .sha256 = Checksum::sha256Hex(bytes),
                          .offer = offer};
    };
    const Bytes first = pattern(3000, 1), second = pattern(4000, 2);
    sender.sendFrame(WireMessage::encode(SessionHeader{.resume = 1}));
    for (const auto& [name, bytes] : {std::pair{"A.jpg", first}, std::pair{"B.jpg", second}}) {
        sender.sendFrame(WireMessage::encode(headerOf(name, bytes, true)));
    }
    for (const char* name : {"A.jpg", "B.jpg"}) {
        EXPECT_EQ(WireMessage::decode<Holding>(sender.receiveFrame(FrameChannel::maxMessageBytes)),
                  (Holding{.name = name, .kind = Holding::Kind::none}));
    }
    sender.sendFrame(WireMessage::encode(headerOf("A.jpg", first, false)));
    sender.sendRaw(first);
    sender.sendFrame(WireMessage::encode(headerOf("C.jpg", second, true)));
    sender.sendFrame(WireMessage::encode(headerOf("D.jpg", second, true)));
    std::vector<std::string> answered; // until the receiver hangs up
    try {
        for (;;) {
            const auto reply =
                WireMessage::decodeReply(sender.receiveFrame(FrameChannel::maxMessageBytes));
            if (const auto* holding = std::get_if<Holding>(&reply)) {
                answered.push_back(holding->name);
            }
        }
    } catch (const StreamError&) {
    }
    EXPECT_EQ(answered, std::vector<std::string>{"C.jpg"}) << "D.jpg went two offers ahead";
    EXPECT_TRUE(session.finish());
    EXPECT_EQ(filesUnder(destination.path()), std::vector<std::string>{"A.jpg"});
}

// A receiver that hangs up its side of a real socket and stops reading while
// the sender still has bytes to write: the send ends instead of waiting for ever.
TEST(HalfClosedReceiver, EndsTheSendInsteadOfLeavingTheWriterBlocked) {
    TemporaryFolder folder;
    EngineSession session({.kind = Link::Kind::socketPair});
    session.send({writeFile(folder.path() / "a.mov", pattern(16 << 20)),
                  writeFile(folder.path() / "b.mov", pattern(16 << 20))});
    // The receiver takes nothing, says it is done, and keeps its socket open.
    session.endSending(Side::receiver);
    EXPECT_TRUE(session.finish()) << "the sender stayed blocked writing to a receiver that hung up";
    EXPECT_TRUE(session.error) << "a batch that was not read cannot have succeeded";
}

/// A file that changes between planning and sending: whatever it becomes, the
/// send reports it in words or sends what it hashed, and never hangs.
struct Change {
    const char* name;
    std::function<void(const fs::path&)> apply;
    /// What the send says when it cannot send the file; nothing when it sends it.
    std::optional<std::string> reason;
};

const Change changes[] = {
    {"Vanishes", [](const fs::path& file) { fs::remove(file); }, "No such file or directory"},
    {"BecomesAFolder",
     [](const fs::path& file) {
         fs::remove(file);
         fs::create_directory(file);
     },
     "not a regular file"},
    {"BecomesAPipeNobodyWritesTo",
     [](const fs::path& file) {
         fs::remove(file);
         ASSERT_EQ(::mkfifo(file.c_str(), 0644), 0);
     },
     "not a regular file"},
    {"BecomesUnreadable", [](const fs::path& file) { fs::permissions(file, fs::perms::none); },
     "Permission denied"},
    {"Shrinks", [](const fs::path& file) { fs::resize_file(file, 10); }, std::nullopt},
    {"Grows", [](const fs::path& file) { writeFile(file, readText(file) + "grown"); },
     std::nullopt},
};

class FileChangedBeforeSending : public ::testing::TestWithParam<Change> {};

// Run as an ordinary user, as users run it: root reads what it may not.
TEST_P(FileChangedBeforeSending, IsReportedOrSentAsReadAndNothingElseIsLost) {
    runInChild([] {
        dropToNobody();
        const Change& change = GetParam();
        TemporaryFolder source, destination, scratch;
        const auto files = writeBatch(source.path(), 3, 20'000);
        change.apply(files[1]);
        EngineSession session;
        ASSERT_TRUE(session.sendToFolder(files, destination.path(), scratch.path()));
        EXPECT_EQ(session.error.has_value(), change.reason.has_value());
        if (change.reason) {
            const auto error = session.error.value_or("");
            EXPECT_NE(error.find("IMG_1001.jpg"), std::string::npos) << error;
            EXPECT_NE(error.find(*change.reason), std::string::npos) << error;
            EXPECT_EQ(session.reportedOk().count("IMG_1001.jpg"), 0u);
            EXPECT_EQ(session.reportedOk().count("IMG_1002.jpg"), 0u)
                << "files after it are not sent";
            fs::remove_all(files[1]);
            writeFile(files[1], "b is back");
        }
        expectResumeCompletes(session, files, source.path(), destination.path(), scratch.path());
    });
}

INSTANTIATE_TEST_SUITE_P(BetweenPlanningAndSending, FileChangedBeforeSending,
                         ::testing::ValuesIn(changes),
                         [](const auto& change) { return std::string(change.param.name); });

/// A file above the whole-read limit is hashed first and read again while it
/// is sent (sparse, so that it costs no disk). Changed in between, it is never
/// saved: shrunk, it fails the send instead of leaving the receiver short of
/// its announced bytes; grown or rewritten, the receiver finds the mismatch.
TEST(LargeFileChangedWhileSending, ShrinkingFailsTheSendAndGrowingOrRewritingIsAMismatch) {
    for (const bool shrinks : {true, false}) {
        SCOPED_TRACE(shrinks ? "shrinks" : "grows and is rewritten");
        TemporaryFolder folder, destination, scratch;
        const fs::path file = writeFile(folder.path() / "long.mov", "start");
        fs::resize_file(file, PreparedFile::wholeReadLimit + 1'000);
        PreparedFile prepared = PreparedFile::prepare(file, MediaType::video);
        if (shrinks) {
            fs::resize_file(file, 4'000'000);
        } else {
            std::fstream(file, std::ios::binary | std::ios::in | std::ios::out) << "START";
            fs::resize_file(file, PreparedFile::wholeReadLimit + 1'019);
        }
        EngineSession session;
        session.serveFolder(destination.path(), scratch.path());
        session.sender().sendFrame(WireMessage::encode(SessionHeader{}));
        session.sender().sendFrame(WireMessage::encode(prepared.header()));
        const auto error =
            errorOf<fs::filesystem_error>([&] { prepared.writeBytes(session.sender()); });
        if (shrinks) {
            ASSERT_TRUE(error) << "a shrunk file was sent";
            EXPECT_NE(std::string(error->what()).find("file shrank while it was being sent"),
                      std::string::npos)
                << error->what();
            EXPECT_EQ(error->path1(), file);
        } else {
            EXPECT_EQ(WireMessage::decode<Ack>(
                          session.sender().receiveFrame(FrameChannel::maxMessageBytes)),
                      (Ack{.name = "long.mov",
                           .status = Ack::Status::error,
                           .message = "checksum mismatch"}));
        }
        ASSERT_TRUE(session.finish());
        EXPECT_TRUE(fs::is_empty(destination.path()));
        EXPECT_TRUE(fs::is_empty(scratch.path()));
    }
}

} // namespace
} // namespace kestrelvane
