// The connection dropping at every stage of a session, on either end, and
// what must hold afterwards: both engines return, no temporary file is left,
// every file the sender was told is saved is saved byte for byte, and sending
// the rest again completes the batch with nothing lost and nothing doubled.
#include "FaultySession.h"
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/sending/PreparedFile.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "KestrelvaneKit/wire/WireMessage.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <random>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::FailingStream;
using testing::FaultySession;
using testing::filesUnder;
using testing::sameContents;
using testing::TemporaryFolder;
using Direction = FailingStream::Direction;
using testing::SessionFaults;
using testing::Side;

/// Three photos of different sizes; the second is larger than one refill of
/// the channel, so a cut in its bytes falls between refills.
class Batch {
public:
    Batch() {
        std::mt19937 random(12);
        const std::size_t sizes[] = {40'000, 300'000, 70'000};
        for (int i = 0; i < 3; ++i) {
            const fs::path path = folder_.path() / ("IMG_000" + std::to_string(i + 1) + ".jpg");
            std::string bytes(sizes[i], '\0');
            for (auto& c : bytes) {
                c = static_cast<char>(random());
            }
            std::ofstream(path, std::ios::binary) << bytes;
            files_.push_back(path);
        }
    }

    const std::vector<fs::path>& files() const { return files_; }
    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& file : files_) {
            names.push_back(file.filename().string());
        }
        return names;
    }
    std::vector<fs::path> without(const std::set<std::string>& names) const {
        std::vector<fs::path> rest;
        for (const auto& file : files_) {
            if (names.count(file.filename().string()) == 0) {
                rest.push_back(file);
            }
        }
        return rest;
    }

private:
    TemporaryFolder folder_;
    std::vector<fs::path> files_;
};

/// Where each part of a session lies on the wire, in bytes from the start of
/// each direction, for the batch above.
struct Wire {
    std::uint64_t sessionFrame = 0;
    std::vector<std::uint64_t> headerFrame; ///< per file
    std::vector<std::uint64_t> bytes;       ///< per file
    std::uint64_t ackFrame = 0;             ///< every name has the same length

    explicit Wire(const Batch& batch) {
        sessionFrame = FrameCodec::encode(WireMessage::encode(SessionHeader{})).size();
        for (const auto& file : batch.files()) {
            const auto header = PreparedFile::prepare(file, MediaType::photo).header();
            headerFrame.push_back(FrameCodec::encode(WireMessage::encode(header)).size());
            bytes.push_back(header.byteCount);
        }
        ackFrame = FrameCodec::encode(WireMessage::encode(Ack{.name = batch.names()[0]})).size();
    }
    /// Where file `index`'s header frame starts on the sender's side.
    std::uint64_t headerOf(std::size_t index) const {
        std::uint64_t at = sessionFrame;
        for (std::size_t i = 0; i < index; ++i) {
            at += headerFrame[i] + bytes[i];
        }
        return at;
    }
    std::uint64_t bytesOf(std::size_t index) const { return headerOf(index) + headerFrame[index]; }
};

struct Stage {
    const char* name;
    Side side;
    Direction direction;
    std::function<std::uint64_t(const Wire&)> at;
    FailingStream::Failure failure = FailingStream::Failure::closed;
    bool saverHoldsOutcomes = false;
};

// What the side's own connection carries: the sender sends files and
// receives acknowledgements, the receiver the other way round.
const Stage stages[] = {
    {"SenderInSessionHeader", Side::sender, Direction::sending,
     [](const Wire& w) { return w.sessionFrame / 2; }},
    {"SenderInHeaderFrame", Side::sender, Direction::sending,
     [](const Wire& w) { return w.headerOf(1) + w.headerFrame[1] / 2; }},
    {"SenderInLengthPrefix", Side::sender, Direction::sending,
     [](const Wire& w) { return w.headerOf(2) + 2; }},
    {"SenderBetweenHeaderAndBytes", Side::sender, Direction::sending,
     [](const Wire& w) { return w.bytesOf(1); }},
    {"SenderMidBytes", Side::sender, Direction::sending,
     [](const Wire& w) { return w.bytesOf(1) + w.bytes[1] / 2; }},
    {"SenderMidBytesWithReset", Side::sender, Direction::sending,
     [](const Wire& w) { return w.bytesOf(1) + w.bytes[1] / 3; }, FailingStream::Failure::reset},
    {"SenderMidBytesWhileSaverHoldsOutcomes", Side::sender, Direction::sending,
     [](const Wire& w) { return w.bytesOf(2) + 10; }, FailingStream::Failure::closed, true},
    {"SenderBeforeFirstAck", Side::sender, Direction::receiving, [](const Wire&) { return 0; }},
    {"SenderInFirstAck", Side::sender, Direction::receiving,
     [](const Wire& w) { return w.ackFrame / 2; }},
    {"SenderAfterFirstAck", Side::sender, Direction::receiving,
     [](const Wire& w) { return w.ackFrame; }},
    {"SenderAfterSecondAck", Side::sender, Direction::receiving,
     [](const Wire& w) { return 2 * w.ackFrame; }},
    {"ReceiverInSessionHeader", Side::receiver, Direction::receiving,
     [](const Wire& w) { return w.sessionFrame / 2; }},
    {"ReceiverInHeaderFrame", Side::receiver, Direction::receiving,
     [](const Wire& w) { return w.headerOf(1) + w.headerFrame[1] / 2; }},
    {"ReceiverBetweenHeaderAndBytes", Side::receiver, Direction::receiving,
     [](const Wire& w) { return w.bytesOf(1); }},
    {"ReceiverMidBytes", Side::receiver, Direction::receiving,
     [](const Wire& w) { return w.bytesOf(1) + w.bytes[1] / 2; }},
    {"ReceiverMidBytesWithReset", Side::receiver, Direction::receiving,
     [](const Wire& w) { return w.bytesOf(2) + 1; }, FailingStream::Failure::reset},
    {"ReceiverMidBytesWhileSaverHoldsOutcomes", Side::receiver, Direction::receiving,
     [](const Wire& w) { return w.bytesOf(2) + w.bytes[2] / 2; }, FailingStream::Failure::closed,
     true},
    {"ReceiverBeforeFirstAck", Side::receiver, Direction::sending, [](const Wire&) { return 0; }},
    {"ReceiverInFirstAck", Side::receiver, Direction::sending,
     [](const Wire& w) { return w.ackFrame - 1; }},
    {"ReceiverAfterFirstAck", Side::receiver, Direction::sending,
     [](const Wire& w) { return w.ackFrame; }},
    {"ReceiverAfterSecondAck", Side::receiver, Direction::sending,
     [](const Wire& w) { return 2 * w.ackFrame; }},
};

void PrintTo(const Stage& stage, std::ostream* out) {
    *out << stage.name;
}

class ConnectionDrop : public ::testing::TestWithParam<Stage> {
protected:
    ConnectionDrop() { previousSink_ = KVLog::setSink(std::make_shared<KVLog::MemorySink>()); }
    ~ConnectionDrop() override { KVLog::setSink(previousSink_); }

    /// Every file in the destination is a file of the batch, whole and under its own name.
    void expectOnlyWholeBatchFiles(const std::string& when) {
        for (const auto& name : filesUnder(destination_.path())) {
            const fs::path original = source_.files().front().parent_path() / name;
            EXPECT_TRUE(fs::exists(original)) << when << ": unexpected file " << name;
            EXPECT_TRUE(sameContents(destination_.path() / name, original))
                << when << ": " << name << " differs from what was sent";
        }
    }

    Batch source_;
    TemporaryFolder destination_;
    TemporaryFolder scratch_;

private:
    std::shared_ptr<KVLog::Sink> previousSink_;
};

TEST_P(ConnectionDrop, LosesNothingAndTheResumedSendCompletesTheBatchOnce) {
    const Stage& stage = GetParam();
    const Wire wire(source_);
    SessionFaults faults{.cut = FailingStream::Cut{stage.direction, stage.at(wire), stage.failure},
                         .side = stage.side,
                         .saver = {.holdOutcomes = stage.saverHoldsOutcomes}};

    const auto broken =
        FaultySession::send(source_.files(), destination_.path(), scratch_.path(), faults);
    ASSERT_TRUE(broken.senderReturned) << "the sender hung";
    ASSERT_TRUE(broken.receiverReturned) << "the receiver hung";
    EXPECT_TRUE(broken.cut) << "the connection never reached the cut";
    EXPECT_EQ(scratch_.fileNames(), std::vector<std::string>{}) << "temporary files left";
    if (!broken.senderError) {
        EXPECT_EQ(broken.returned.size(), broken.reported.size());
    }

    // What the sender was told is saved is saved, and is among what the
    // receiver saved; nothing partial or foreign is in the folder.
    const auto reportedOk = broken.reportedOk();
    EXPECT_LT(reportedOk.size(), source_.files().size()) << "the cut cost nothing";
    for (const auto& name : reportedOk) {
        EXPECT_EQ(broken.receiverOk().count(name), 1u) << name;
        EXPECT_TRUE(
            sameContents(destination_.path() / name, source_.files().front().parent_path() / name))
            << name;
    }
    for (const auto& ack : broken.reported) {
        EXPECT_EQ(ack.status, Ack::Status::ok) << ack.name << ": " << ack.message.value_or("");
    }
    expectOnlyWholeBatchFiles("after the cut");

    // Resuming sends exactly the files not reported saved.
    const auto rest = source_.without(reportedOk);
    const auto resumed = FaultySession::send(rest, destination_.path(), scratch_.path());
    ASSERT_TRUE(resumed.senderReturned && resumed.receiverReturned);
    EXPECT_EQ(resumed.senderError, std::nullopt);
    EXPECT_EQ(resumed.reportedOk().size(), rest.size());
    EXPECT_EQ(filesUnder(destination_.path()), source_.names()) << "a file lost or doubled";
    expectOnlyWholeBatchFiles("after resuming");
    EXPECT_EQ(scratch_.fileNames(), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(AtEveryStage, ConnectionDrop, ::testing::ValuesIn(stages),
                         [](const auto& stage) { return std::string(stage.param.name); });

} // namespace
} // namespace kestrelvane
