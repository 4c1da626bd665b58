#include "KestrelvaneKit/sending/TransferClient.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "support/EngineSession.h"
#include "support/Eventually.h"
#include "support/ScriptedStream.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <functional>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

/// A send to a receiver the test plays.
class TransferClientSend : public ::testing::Test {
protected:
    explicit TransferClientSend(const Link& link = {}) : session(link) {}
    ScriptedReceiver& start(std::vector<fs::path> files, bool autoAck) {
        ScriptedReceiver& receiver = session.receiver(autoAck);
        session.send(std::move(files), SessionHeader{.albumName = "Trip"});
        return receiver;
    }
    /// Three files of which the window holds two: the writer waits for room.
    ScriptedReceiver& startWithTheWriterWaiting() {
        session.client = TransferClient(2000, 2);
        ScriptedReceiver& receiver = start(writeBatch(folder.path(), 3, 1500), false);
        EXPECT_TRUE(receiver.waitForFiles(2));
        EXPECT_TRUE(eventually([&] { return session.client.inflight().waitingCount() == 1; }));
        EXPECT_EQ(receiver.fileCount(), 2u) << "a full window let the next file go";
        return receiver;
    }
    bool windowIsEmpty() { return session.client.inflight().snapshot() == Inflight::Snapshot{}; }

    TemporaryFolder folder;
    EngineSession session;
};

// Of two files named alike, each acknowledgement of that name settles the
// first unsettled one and gives back its size: the window ends empty.
TEST_F(TransferClientSend, WritesTheSessionThenEachPhotoOrVideoWithItsBytesAndReportsEveryAck) {
    const Bytes a = pattern(3000, 1), c = pattern(70'000, 3), d = pattern(5000, 4);
    const ScriptedReceiver& receiver =
        start({writeFile(folder.path() / "a.JPG", a), writeFile(folder.path() / "notes.txt", a),
               writeFile(folder.path() / "b.png", Bytes{}), writeFile(folder.path() / "c.mov", c),
               writeFile(folder.path() / "d" / "a.JPG", d)},
              true);
    ASSERT_TRUE(session.finish());
    std::vector<Bytes> wire{frameOf(SessionHeader{.albumName = "Trip"})};
    for (const auto& [name, bytes] : std::vector<std::pair<std::string, Bytes>>{
             {"a.JPG", a}, {"b.png", {}}, {"c.mov", c}, {"a.JPG", d}}) {
        wire.push_back(
            frameOf(FileHeader{.name = name,
                               .mediaType = name == "c.mov" ? MediaType::video : MediaType::photo,
                               .byteCount = bytes.size(),
                               .sha256 = Checksum::sha256Hex(bytes)}));
        wire.push_back(bytes);
    }
    EXPECT_EQ(receiver.wireLog(), wire);
    const auto progress = session.progress();
    ASSERT_EQ(progress.size(), 4u);
    const std::size_t entries[] = {0, 2, 3, 4}; // positions in the list given, notes.txt left out
    for (std::size_t i = 0; i < progress.size(); ++i) {
        EXPECT_EQ(progress[i].entry, entries[i]);
        EXPECT_EQ(progress[i].index, static_cast<std::int64_t>(i));
        EXPECT_EQ(progress[i].total, 4);
        EXPECT_EQ(progress[i].ack, session.returned.at(i));
    }
    EXPECT_TRUE(windowIsEmpty());
    // A batch without photos or videos writes nothing, not even the session.
    auto stream = std::make_shared<ScriptedStream>();
    FrameChannel channel(stream);
    EXPECT_TRUE(
        TransferClient().send({folder.path() / "notes.txt", "anim.gif"}, channel, {}).empty());
    EXPECT_TRUE(stream->sent.empty());
}

// An acknowledgement naming its file in another normal form, or an error
// without a message, frees that file's room in the window, and so does every
// file never acknowledged when the receiver hangs up early.
TEST_F(TransferClientSend, ReportsAcknowledgementsInArrivalOrderAndGivesBackWhatWasNeverAnswered) {
    auto files = writeBatch(folder.path(), 2, 100);
    files.push_back(writeFile(folder.path() / "caf\xC3\xA9.jpg", pattern(100)));
    ScriptedReceiver& receiver = start(files, false);
    ASSERT_TRUE(receiver.waitForFiles(3));
    receiver.sendAck(Ack{.name = "cafe\xCC\x81.jpg"});
    receiver.sendAck(Ack{.name = "IMG_1001.jpg", .status = Ack::Status::error});
    EXPECT_TRUE(eventually([&] {
        return session.client.inflight().snapshot() == Inflight::Snapshot{100, 1};
    }));
    receiver.closeConnection();
    ASSERT_TRUE(session.finish());
    EXPECT_EQ(session.returned,
              (std::vector<Ack>{Ack{.name = "caf\xC3\xA9.jpg"},
                                Ack{.name = "IMG_1001.jpg", .status = Ack::Status::error}}));
    EXPECT_TRUE(windowIsEmpty());
    EXPECT_TRUE(session.log->messages().back().starts_with("SUMMARY files=3 ok=1 failed=2 "));
}

/// A receiver that ends the send, begun while the writer waits for room, and
/// the error the send then fails with.
struct Ending {
    const char* name;
    std::function<void(ScriptedReceiver&)> act;
    const char* error; ///< what the send fails with
    Link link{};
};

const Ending endings[] = {
    {"AnUndecodableAcknowledgement",
     [](ScriptedReceiver& r) {
         r.sendFrame(asBytes(R"({"name":"IMG_1000.jpg","status":"fine"})"));
     },
     R"("status" has an unknown value "fine")"},
    // A length prefix announcing 2 GiB, once every file is written: the send
    // fails for the frame itself, not for a writer it stopped.
    {"AnOversizedAcknowledgementFrame",
     [](ScriptedReceiver& r) {
         r.sendAck(Ack{.name = "IMG_1000.jpg"});
         EXPECT_TRUE(r.waitForFiles(3));
         r.sendRaw({0x7f, 0xff, 0xff, 0xff});
     },
     "frame of 2147483647 bytes exceeds the limit"},
    // The cause, not the writer's own stop that follows it.
    {"AResetUnderTheAcknowledgements",
     [](ScriptedReceiver& r) { r.sendAck(Ack{.name = "IMG_1000.jpg"}); },
     "Connection reset by peer",
     {.cut = FailingStream::Cut{FailingStream::Direction::receiving, 1,
                                FailingStream::Failure::reset}}},
};

class TransferClientEnding : public TransferClientSend,
                             public ::testing::WithParamInterface<Ending> {
protected:
    TransferClientEnding() : TransferClientSend(GetParam().link) {}
};

TEST_P(TransferClientEnding, FailsTheSendAndLeavesNoWriterWaiting) {
    GetParam().act(startWithTheWriterWaiting());
    ASSERT_TRUE(session.finish());
    const std::string error = session.error.value_or("no error");
    EXPECT_NE(error.find(GetParam().error), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(ByTheReceiver, TransferClientEnding, ::testing::ValuesIn(endings),
                         [](const auto& ending) { return std::string(ending.param.name); });

} // namespace
} // namespace kestrelvane
