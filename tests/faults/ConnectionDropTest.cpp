// The connection dropping at every stage of a session, on either end, and
// what must hold afterwards: both engines return, no temporary file is left,
// every file the sender was told is saved is saved byte for byte, and sending
// the rest again completes the batch with nothing lost and nothing doubled.
#include "KestrelvaneKit/sending/PreparedFile.h"
#include "support/EngineSession.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <functional>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using Direction = FailingStream::Direction;
using Failure = FailingStream::Failure;

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

void PrintTo(const Stage& stage, std::ostream* out) {
    *out << stage.name;
}

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
    // receiver saved; nothing partial or foreign is in the folder.
    EXPECT_LT(broken.reportedOk().size(), files.size()) << "the cut cost nothing";
    for (const auto& step : broken.progress()) {
        EXPECT_EQ(step.ack.status, Ack::Status::ok) << step.ack.name;
        EXPECT_EQ(broken.receiverOk().count(step.ack.name), 1u) << step.ack.name;
        EXPECT_TRUE(fs::exists(destination.path() / step.ack.name)) << step.ack.name;
    }
    EXPECT_EQ(filesNotAsIn(destination.path(), source.path()), std::vector<std::string>{});

    // Resuming sends exactly the files not reported saved.
    const auto rest = broken.notReportedOk(files);
    EngineSession resumed;
    ASSERT_TRUE(resumed.sendToFolder(rest, destination.path(), scratch.path()));
    EXPECT_EQ(resumed.errorText(), std::nullopt);
    EXPECT_EQ(resumed.reportedOk().size(), rest.size());
    EXPECT_EQ(filesUnder(destination.path()), filesUnder(source.path())) << "lost or doubled";
    EXPECT_EQ(filesNotAsIn(destination.path(), source.path()), std::vector<std::string>{});
    EXPECT_TRUE(fs::is_empty(scratch.path())) << "temporary files left";
}

INSTANTIATE_TEST_SUITE_P(AtEveryStage, ConnectionDrop, ::testing::ValuesIn(stages),
                         [](const auto& stage) { return std::string(stage.param.name); });

} // namespace
} // namespace kestrelvane
