#include "Sender/SenderViewModel.h"

#include "KestrelvaneKit/wire/FrameChannel.h"
#include "MediaFiles.h"
#include "support/MemoryStream.h"
#include "support/ScriptedReceiver.h"
#include "support/TemporaryFolder.h"

#include <QSignalSpy>
#include <QTest>

#include <condition_variable>
#include <mutex>

namespace kestrelvane {

namespace fs = std::filesystem;
using Status = TransferQueue::Status;
using testing::ScriptedReceiver;

namespace {

/// The sender's end of a connection that stops taking bytes just before the
/// header of file number `holdBeforeFile` (1-based) until it is broken, as a
/// link does whose peer has vanished mid-batch.
class StallingStream final : public KestrelvaneStream {
public:
    StallingStream(std::shared_ptr<KestrelvaneStream> inner, int holdBeforeFile)
        : inner_(std::move(inner)), holdBeforeFile_(holdBeforeFile) {}

    void start() override { inner_->start(); }
    void send(ByteView data) override {
        const std::string text(reinterpret_cast<const char*>(data.data()),
                               std::min<std::size_t>(data.size(), 4096));
        if (text.find("\"byteCount\"") != std::string::npos && ++headers_ >= holdBeforeFile_) {
            std::unique_lock lock(mutex_);
            stalled_ = true;
            changed_.notify_all();
            changed_.wait(lock, [this] { return broken_; });
            throw StreamError::closed();
        }
        inner_->send(data);
    }
    Bytes receive(std::int64_t max) override { return inner_->receive(max); }
    void close() noexcept override {
        breakConnection();
        inner_->close();
    }
    bool waitUntilStalled() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30), [this] { return stalled_; });
    }
    void breakConnection() {
        const std::lock_guard lock(mutex_);
        broken_ = true;
        changed_.notify_all();
    }

private:
    std::shared_ptr<KestrelvaneStream> inner_;
    const int holdBeforeFile_;
    int headers_ = 0;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stalled_ = false;
    bool broken_ = false;
};

std::vector<std::string> receivedNames(const ScriptedReceiver& receiver) {
    std::vector<std::string> names;
    for (const auto& file : receiver.files()) {
        names.push_back(file.header.name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

int countStatus(TransferQueue& queue, Status::Kind kind) {
    return static_cast<int>(
        std::count_if(queue.items().begin(), queue.items().end(),
                      [kind](const auto& item) { return item.status.kind == kind; }));
}

} // namespace

class SenderViewModelTest : public QObject {
    Q_OBJECT

    std::unique_ptr<testing::TemporaryFolder> folder_;
    std::unique_ptr<SenderViewModel> model_;
    std::unique_ptr<ScriptedReceiver> receiver_;
    int failures_ = 0;
    int channelsMade_ = 0;

    void queueFiles(int count) {
        QSignalSpy finished(&model_->queue(), &TransferQueue::addFinished);
        model_->addURLs(testing::writePhotos(folder_->path(), count));
        QVERIFY(finished.wait(30'000));
        QCOMPARE(model_->queue().rowCount(), count);
    }

    /// Starts a send of the unsent items to a fresh receiver; `stallBeforeFile`
    /// makes the connection stall before that file's header.
    std::shared_ptr<StallingStream> startSend(bool autoAck, int stallBeforeFile = 1'000) {
        auto [senderEnd, receiverEnd] = testing::makeMemoryStreamPair();
        receiver_ = std::make_unique<ScriptedReceiver>(receiverEnd, autoAck);
        auto stream = std::make_shared<StallingStream>(senderEnd, stallBeforeFile);
        model_->startSend(
            model_->queue().unsentURLs(),
            [this, stream] {
                ++channelsMade_;
                return std::make_unique<FrameChannel>(stream);
            },
            [this] { ++failures_; });
        return stream;
    }

    static Ack ack(const std::string& name, Ack::Status status = Ack::Status::ok,
                   std::optional<std::string> message = std::nullopt) {
        return Ack{name, status, std::move(message)};
    }

private slots:
    void init() {
        folder_ = std::make_unique<testing::TemporaryFolder>();
        model_ = std::make_unique<SenderViewModel>();
        failures_ = 0;
        channelsMade_ = 0;
    }
    void cleanup() {
        model_.reset(); // ends a send still running before its receiver goes
        receiver_.reset();
        folder_.reset();
    }

    void aFreshModelIsEmptyAndIdle() {
        QVERIFY(model_->albumName().isEmpty());
        QVERIFY(!model_->isSending());
        QVERIFY(model_->statsLine().isEmpty());
        QCOMPARE(model_->queue().rowCount(), 0);
    }

    void queueChangesAreAnnouncedByTheModel() {
        QSignalSpy changed(model_.get(), &SenderViewModel::queueChanged);
        queueFiles(3);
        QCOMPARE(changed.count(), 3);
        model_->queue().markSending({"IMG_1.jpg"});
        QCOMPARE(changed.count(), 4);
        model_->clearQueue();
        QCOMPARE(changed.count(), 5);
        QCOMPARE(model_->queue().rowCount(), 0);
    }

    void aFullBatchGoesFromSendingToSaved() {
        queueFiles(4);
        QSignalSpy sending(model_.get(), &SenderViewModel::isSendingChanged);
        startSend(true);
        QVERIFY(model_->isSending());
        QCOMPARE(countStatus(model_->queue(), Status::Kind::sending), 4);
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QCOMPARE(sending.count(), 2);
        QCOMPARE(countStatus(model_->queue(), Status::Kind::saved), 4);
        QCOMPARE(model_->bytesDone(), 1000 + 1001 + 1002 + 1003);
        QVERIFY(model_->statsLine().startsWith("0 MB in 0:0"));
        QCOMPARE(failures_, 0);
        QVERIFY(!receiver_->session()->albumName.has_value());
    }

    void rejectedFilesFailWithTheReceiversMessageAndTheBatchGoesOn() {
        queueFiles(10);
        startSend(false);
        QVERIFY(receiver_->waitForFiles(10));
        for (int i = 0; i < 10; ++i) {
            const std::string name = "IMG_" + std::to_string(i) + ".jpg";
            if (i == 3) {
                receiver_->sendAck(ack(name, Ack::Status::error, "no space"));
            } else if (i == 7) {
                receiver_->sendAck(ack(name, Ack::Status::error));
            } else {
                receiver_->sendAck(ack(name));
            }
        }
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QCOMPARE(countStatus(model_->queue(), Status::Kind::saved), 8);
        QVERIFY(model_->queue().items()[3].status == Status::failed("no space"));
        QVERIFY(model_->queue().items()[7].status == Status::failed("failed"));
        QCOMPARE(failures_, 0);
    }

    void aConnectionLostMidBatchRequeuesTheRestAndTheNextSendResendsExactlyThem() {
        queueFiles(10);
        auto stream = startSend(false, 4);
        QVERIFY(receiver_->waitForFiles(3));
        QVERIFY(stream->waitUntilStalled());
        for (const int i : {2, 0, 1}) {
            receiver_->sendAck(ack("IMG_" + std::to_string(i) + ".jpg"));
        }
        QTRY_COMPARE_WITH_TIMEOUT(countStatus(model_->queue(), Status::Kind::saved), 3, 30'000);
        QVERIFY(model_->statsLine().contains(" MB/s \u00B7 0:0"));
        stream->breakConnection();
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QCOMPARE(countStatus(model_->queue(), Status::Kind::queued), 7);
        QCOMPARE(failures_, 1);

        // One more rejected, then the retry: only what is not saved goes again.
        model_->queue().setStatus(Status::failed("x"), "IMG_5.jpg");
        startSend(true);
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QVERIFY(receiver_->waitForEnd());
        const std::vector<std::string> expected{"IMG_3.jpg", "IMG_4.jpg", "IMG_5.jpg", "IMG_6.jpg",
                                                "IMG_7.jpg", "IMG_8.jpg", "IMG_9.jpg"};
        QVERIFY(receivedNames(*receiver_) == expected);
        QCOMPARE(model_->queue().savedCount(), 10);
        QCOMPARE(failures_, 1);
    }

    void acknowledgementsEndingEarlyAfterAFinishedWriterAreNoFailure() {
        queueFiles(3);
        startSend(false);
        QVERIFY(receiver_->waitForFiles(3));
        receiver_->sendAck(ack("IMG_0.jpg"));
        QTRY_COMPARE_WITH_TIMEOUT(model_->queue().savedCount(), 1, 30'000);
        receiver_->closeConnection();
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QCOMPARE(countStatus(model_->queue(), Status::Kind::queued), 2);
        QCOMPARE(failures_, 0);
    }

    void theAlbumNameIsTrimmedAndBlankMeansNone() {
        queueFiles(1);
        model_->setAlbumName("  Trip \n");
        startSend(true);
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QVERIFY(receiver_->session()->albumName == std::optional<std::string>("Trip"));

        model_->queue().setStatus(Status::failed("again"), "IMG_0.jpg");
        model_->setAlbumName(" \t ");
        startSend(true);
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QVERIFY(receiver_->session().has_value());
        QVERIFY(!receiver_->session()->albumName.has_value());
        QCOMPARE(receivedNames(*receiver_).size(), std::size_t{1});
    }

    void nothingUnsentMeansNoSendAndNoConnection() {
        queueFiles(2);
        model_->queue().setStatus(Status::saved(), "IMG_0.jpg");
        model_->queue().setStatus(Status::saved(), "IMG_1.jpg");
        QSignalSpy sending(model_.get(), &SenderViewModel::isSendingChanged);
        model_->startSend(
            model_->queue().unsentURLs(),
            [this] {
                ++channelsMade_;
                return std::unique_ptr<FrameChannel>();
            },
            [this] { ++failures_; });
        QVERIFY(!model_->isSending());
        QCOMPARE(sending.count(), 0);
        QCOMPARE(channelsMade_, 0);
    }

    void aChannelThatCannotStartEndsTheSendAsDropped() {
        queueFiles(2);
        model_->startSend(
            model_->queue().unsentURLs(),
            []() -> std::unique_ptr<FrameChannel> { throw StreamError::refused("no route"); },
            [this] { ++failures_; });
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QCOMPARE(failures_, 1);
        QCOMPARE(countStatus(model_->queue(), Status::Kind::queued), 2);
        QVERIFY(model_->statsLine().isEmpty());
    }

    void destroyingTheModelEndsASendThatWaitsForever() {
        queueFiles(2);
        startSend(false);
        QVERIFY(receiver_->waitForFiles(2));
        model_.reset(); // must not hang: the connection is closed and the worker joined
        QVERIFY(receiver_->waitForEnd());
    }

    void statisticsLinesAndClock() {
        QCOMPARE(SenderViewModel::progressLine(2'603'614'208, 65.0),
                 QStringLiteral("38.2 MB/s \u00B7 1:05"));
        QCOMPARE(SenderViewModel::summaryLine(1187LL * 1'048'576, 65.0),
                 QStringLiteral("1187 MB in 1:05 \u00B7 avg 18.3 MB/s"));
        QCOMPARE(SenderViewModel::progressLine(1'000, 0.0), QStringLiteral("0.0 MB/s \u00B7 0:00"));
        QCOMPARE(SenderViewModel::clock(59.5), QStringLiteral("1:00"));
        QCOMPARE(SenderViewModel::clock(125.6), QStringLiteral("2:06"));
        QCOMPARE(SenderViewModel::clock(3725), QStringLiteral("62:05"));
        QCOMPARE(SenderViewModel::clock(5.4), QStringLiteral("0:05"));
        QCOMPARE(SenderViewModel::clock(0), QStringLiteral("0:00"));
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::SenderViewModelTest)
#include "SenderViewModelTest.moc"
