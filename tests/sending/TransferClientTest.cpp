#include "KestrelvaneKit/sending/TransferClient.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "KestrelvaneKit/wire/WireMessage.h"
#include "support/Eventually.h"
#include "support/MemoryStream.h"
#include "support/ScriptedReceiver.h"
#include "support/ScriptedStream.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::eventually;
using testing::makeMemoryStreamPair;
using testing::MemoryStream;
using testing::ScriptedReceiver;
using testing::TemporaryFolder;

Bytes pattern(std::size_t size, std::uint8_t seed) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = static_cast<std::uint8_t>(seed + i * 13);
    }
    return out;
}

fs::path writeFile(const fs::path& path, const Bytes& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return path;
}

bool contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

/// One send from a TransferClient to a ScriptedReceiver over an in-memory
/// connection, with the log captured. The send runs on its own thread so the
/// test can play the receiver; every wait has a deadline, and a send still
/// running at the end is unblocked by closing the connection.
class TransferClientSend : public ::testing::Test {
protected:
    TransferClientSend() { previousSink_ = KVLog::setSink(log_); }
    ~TransferClientSend() override {
        streams_.first->close();
        streams_.second->close();
        if (result_.valid()) {
            result_.wait();
        }
        KVLog::setSink(previousSink_);
    }

    void startSend(std::vector<fs::path> files, bool autoAck,
                   TransferClient client = TransferClient()) {
        receiver_ = std::make_unique<ScriptedReceiver>(streams_.second, autoAck);
        client_ = std::make_unique<TransferClient>(std::move(client));
        result_ = std::async(std::launch::async, [this, files = std::move(files)] {
            return client_->send(files, channel_, SessionHeader{.albumName = "Trip"},
                                 [this](const TransferClient::Progress& progress) {
                                     const std::lock_guard lock(progressMutex_);
                                     progress_.push_back(progress);
                                 });
        });
    }

    /// The send's result, once it has returned (or thrown) within the deadline.
    std::vector<Ack> finish() {
        if (result_.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
            ADD_FAILURE() << "send did not return";
            streams_.first->close();
        }
        return result_.get();
    }

    /// Files of `size` bytes named "1.jpg", "2.jpg" ... in the folder.
    std::vector<fs::path> numberedFiles(int count, std::size_t size, std::uint8_t seed) {
        std::vector<fs::path> files;
        for (int i = 1; i <= count; ++i) {
            files.push_back(
                writeFile(folder_.path() / (std::to_string(i) + ".jpg"), pattern(size, seed)));
        }
        return files;
    }

    std::vector<TransferClient::Progress> progress() {
        const std::lock_guard lock(progressMutex_);
        return progress_;
    }

    TemporaryFolder folder_;
    std::shared_ptr<KVLog::MemorySink> log_ = std::make_shared<KVLog::MemorySink>();
    std::pair<std::shared_ptr<MemoryStream>, std::shared_ptr<MemoryStream>> streams_ =
        makeMemoryStreamPair();
    FrameChannel channel_{streams_.first};
    std::unique_ptr<ScriptedReceiver> receiver_;
    std::unique_ptr<TransferClient> client_;
    std::future<std::vector<Ack>> result_;

private:
    std::shared_ptr<KVLog::Sink> previousSink_;
    std::mutex progressMutex_;
    std::vector<TransferClient::Progress> progress_;
};

TEST_F(TransferClientSend, WritesTheSessionThenEachHeaderWithItsBytesAndReportsEveryAck) {
    const Bytes a = pattern(3000, 1), b = pattern(0, 2), c = pattern(70'000, 3);
    startSend({writeFile(folder_.path() / "a.JPG", a), writeFile(folder_.path() / "notes.txt", a),
               writeFile(folder_.path() / "b.png", b), writeFile(folder_.path() / "c.mov", c)},
              true);
    const std::vector<Ack> acks = finish();

    ASSERT_EQ(acks.size(), 3u);
    const auto wire = receiver_->wireLog();
    ASSERT_EQ(wire.size(), 7u);
    EXPECT_EQ(wire[0], FrameCodec::encode(WireMessage::encode(SessionHeader{.albumName = "Trip"})));
    const std::vector<std::pair<std::string, Bytes>> expected{
        {"a.JPG", a}, {"b.png", b}, {"c.mov", c}};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto& [name, bytes] = expected[i];
        const FileHeader header{.name = name,
                                .mediaType = name == "c.mov" ? MediaType::video : MediaType::photo,
                                .byteCount = bytes.size(),
                                .sha256 = Checksum::sha256Hex(bytes)};
        EXPECT_EQ(wire[1 + 2 * i], FrameCodec::encode(WireMessage::encode(header))) << name;
        EXPECT_EQ(wire[2 + 2 * i], bytes) << name;
    }
    const auto reported = progress();
    ASSERT_EQ(reported.size(), 3u);
    for (std::int64_t i = 0; i < 3; ++i) {
        EXPECT_EQ(reported[static_cast<std::size_t>(i)].index, i);
        EXPECT_EQ(reported[static_cast<std::size_t>(i)].total, 3);
        EXPECT_EQ(reported[static_cast<std::size_t>(i)].fileName,
                  expected[static_cast<std::size_t>(i)].first);
    }
    const auto lines = log_->messages();
    EXPECT_EQ(lines.front(), "START files=3 bytes=0.1MB");
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.rfind("SENT ", 0) == 0; }),
              3);
    EXPECT_EQ(lines.back().rfind("SUMMARY files=3 ok=3 failed=0 bytes=0.1MB wall=", 0), 0u)
        << lines.back();
    EXPECT_EQ(client_->inflight().snapshot(), (Inflight::Snapshot{0, 0}));
}

TEST_F(TransferClientSend, AcknowledgementsInAnyOrderAreCountedInArrivalOrder) {
    const std::vector<fs::path> files = numberedFiles(3, 100, 4);
    startSend(files, false);
    ASSERT_TRUE(receiver_->waitForFiles(3));
    receiver_->sendAck(Ack{.name = "3.jpg"});
    receiver_->sendAck(Ack{.name = "2.jpg", .status = Ack::Status::error});
    receiver_->sendAck(Ack{.name = "1.jpg"});
    const std::vector<Ack> acks = finish();

    ASSERT_EQ(acks.size(), 3u);
    EXPECT_EQ(acks[0].name, "3.jpg");
    const auto reported = progress();
    ASSERT_EQ(reported.size(), 3u);
    EXPECT_EQ(reported[0].index, 0);
    EXPECT_EQ(reported[0].fileName, "3.jpg");
    EXPECT_EQ(reported[1].index, 1);
    EXPECT_EQ(reported[1].ack.status, Ack::Status::error);
    EXPECT_EQ(reported[2].fileName, "1.jpg");
    // An error without a message is logged with "?" and still frees its space.
    EXPECT_TRUE(contains(log_->messages(), "ACK-ERR 2.jpg: ?"));
    EXPECT_EQ(client_->inflight().snapshot(), (Inflight::Snapshot{0, 0}));
    EXPECT_EQ(log_->messages().back().rfind("SUMMARY files=3 ok=2 failed=1 ", 0), 0u);
}

TEST_F(TransferClientSend, ReceiverThatHangsUpEarlyLeavesTheMissingFilesCountedAsFailed) {
    const std::vector<fs::path> files = numberedFiles(3, 100, 5);
    startSend(files, false);
    ASSERT_TRUE(receiver_->waitForFiles(3));
    receiver_->sendAck(Ack{.name = "1.jpg"});
    receiver_->sendAck(Ack{.name = "2.jpg"});
    receiver_->closeConnection();
    const std::vector<Ack> acks = finish();

    EXPECT_EQ(acks.size(), 2u);
    EXPECT_TRUE(contains(log_->messages(), "ACK-READ ended early at 2/3"));
    EXPECT_EQ(log_->messages().back().rfind("SUMMARY files=3 ok=2 failed=1 ", 0), 0u);
    // What was never acknowledged does not stay charged to the window.
    EXPECT_EQ(client_->inflight().snapshot(), (Inflight::Snapshot{0, 0}));
}

TEST_F(TransferClientSend, FileThatVanishedFailsTheCallAfterTheFilesBeforeIt) {
    const fs::path first = writeFile(folder_.path() / "1.jpg", pattern(100, 6));
    const fs::path gone = folder_.path() / "2.jpg";
    const fs::path third = writeFile(folder_.path() / "3.jpg", pattern(100, 7));
    startSend({first, gone, third}, true);
    EXPECT_THROW(finish(), fs::filesystem_error);
    ASSERT_TRUE(receiver_->waitForEnd());
    const auto received = receiver_->files();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].header.name, "1.jpg");
    EXPECT_FALSE(contains(log_->messages(), "SUMMARY"));
}

// Two files named alike: each acknowledgement of that name gives back the
// later file's size, so the window ends empty, not holding the difference.
TEST_F(TransferClientSend, SameNameInTwoFoldersIsSentTwiceAndCreditedWithTheLaterSize) {
    const fs::path small = writeFile(folder_.path() / "a" / "IMG.jpg", pattern(100, 8));
    const fs::path large = writeFile(folder_.path() / "b" / "IMG.jpg", pattern(300, 9));
    startSend({small, large}, true);
    EXPECT_EQ(finish().size(), 2u);
    EXPECT_EQ(receiver_->files().size(), 2u);
    EXPECT_EQ(client_->inflight().snapshot(), (Inflight::Snapshot{0, 0}));
}

// Text fields compare under canonical equivalence: an acknowledgement naming
// the file in decomposed form gives back that file's bytes.
TEST_F(TransferClientSend, AnAcknowledgementNamedInAnotherNormalFormCreditsTheFilesBytes) {
    const fs::path composed = writeFile(folder_.path() / "caf\xC3\xA9.jpg", pattern(1000, 15));
    const fs::path other = writeFile(folder_.path() / "b.jpg", pattern(10, 16));
    startSend({composed, other}, false);
    ASSERT_TRUE(receiver_->waitForFiles(2));
    receiver_->sendAck(Ack{.name = "cafe\xCC\x81.jpg"});
    EXPECT_TRUE(eventually([&] {
        return client_->inflight().snapshot() == Inflight::Snapshot{.bytes = 10, .files = 1};
    })) << client_->inflight().snapshot().bytes;
    receiver_->sendAck(Ack{.name = "b.jpg"});
    EXPECT_EQ(finish().size(), 2u);
}

TEST_F(TransferClientSend, SmallWindowHoldsTheThirdFileBackUntilAnAcknowledgementArrives) {
    const std::vector<fs::path> files = numberedFiles(3, 1500, 10);
    startSend(files, false, TransferClient(2000, 2));
    ASSERT_TRUE(receiver_->waitForFiles(2));
    ASSERT_TRUE(eventually([&] { return client_->inflight().waitingCount() == 1; }));
    // The writer is parked before the third header: nothing more is on the wire.
    EXPECT_EQ(streams_.second->pendingBytes(), 0u);
    EXPECT_EQ(receiver_->files().size(), 2u);

    receiver_->sendAck(Ack{.name = "1.jpg"});
    ASSERT_TRUE(receiver_->waitForFiles(3));
    receiver_->sendAck(Ack{.name = "2.jpg"});
    receiver_->sendAck(Ack{.name = "3.jpg"});
    EXPECT_EQ(finish().size(), 3u);
    // The third file waited for the first acknowledgement: it left with two in flight.
    const auto lines = log_->messages();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.rfind("SENT 3.jpg ", 0) == 0 && line.find(" inflight=2") != std::string::npos;
    }));
}

TEST_F(TransferClientSend, UndecodableAcknowledgementFailsTheCallAndWakesTheWaitingWriter) {
    const std::vector<fs::path> files = numberedFiles(3, 1500, 11);
    startSend(files, false, TransferClient(2000, 2));
    ASSERT_TRUE(receiver_->waitForFiles(2));
    ASSERT_TRUE(eventually([&] { return client_->inflight().waitingCount() == 1; }));
    receiver_->sendFrame(asBytes("{\"name\":\"1.jpg\",\"status\":\"fine\"}"));
    EXPECT_THROW(finish(), WireMessage::DecodingError);
}

TEST_F(TransferClientSend, ConnectionLostWhileTheWriterWaitsForRoomEndsTheCall) {
    const std::vector<fs::path> files = numberedFiles(3, 1500, 12);
    startSend(files, false, TransferClient(2000, 2));
    ASSERT_TRUE(receiver_->waitForFiles(2));
    ASSERT_TRUE(eventually([&] { return client_->inflight().waitingCount() == 1; }));
    receiver_->closeConnection();
    EXPECT_THROW(finish(), StreamError);
    EXPECT_TRUE(contains(log_->messages(), "ACK-READ ended early at 0/3"));
}

// A receiver that acknowledges before the files arrive leaves nothing to
// release the window; the writer must not wait for ever for room.
TEST_F(TransferClientSend, AcknowledgementsAheadOfTheFilesEndTheSendInsteadOfHangingIt) {
    const std::vector<fs::path> files = numberedFiles(4, 1500, 13);
    receiver_ = std::make_unique<ScriptedReceiver>(streams_.second, false);
    for (const fs::path& file : files) {
        receiver_->sendAck(Ack{.name = file.filename().string()});
    }
    client_ = std::make_unique<TransferClient>(2000, 2);
    result_ = std::async(std::launch::async,
                         [&] { return client_->send(files, channel_, SessionHeader{}); });
    ASSERT_EQ(result_.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    try {
        EXPECT_EQ(result_.get().size(), 4u); // every reservation happened to fit
    } catch (const StreamError& error) {
        EXPECT_TRUE(error.isClosed()); // a file found no room that could ever come
    }
    EXPECT_EQ(client_->inflight().waitingCount(), 0u);
}

TEST_F(TransferClientSend, OversizedAcknowledgementFrameFailsTheSendBeforeItIsBuffered) {
    const fs::path file = writeFile(folder_.path() / "1.jpg", pattern(100, 14));
    startSend({file}, false);
    ASSERT_TRUE(receiver_->waitForFiles(1));
    const Bytes prefix{0x7f, 0xff, 0xff, 0xff}; // announces 2 GiB, sends nothing more
    streams_.second->send(prefix);
    EXPECT_THROW(finish(), FrameChannel::FrameTooLarge);
}

TEST(TransferClient, BatchWithoutPhotosOrVideosWritesNothing) {
    TemporaryFolder folder;
    auto stream = std::make_shared<testing::ScriptedStream>();
    FrameChannel channel(stream);
    const auto acks = TransferClient().send({writeFile(folder.path() / "notes.txt", pattern(5, 1)),
                                             folder.path() / "README", folder.path() / "anim.gif"},
                                            channel, SessionHeader{});
    EXPECT_TRUE(acks.empty());
    EXPECT_TRUE(stream->sent.empty());
    EXPECT_TRUE(stream->receiveMaxima.empty());
}

} // namespace
} // namespace kestrelvane
