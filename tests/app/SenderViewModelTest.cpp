#include "Sender/SenderViewModel.h"

#include "KestrelvaneKit/wire/FrameChannel.h"
#include "support/MemoryStream.h"
#include "support/ScriptedReceiver.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <QSignalSpy>
#include <QTest>

namespace kestrelvane {

namespace {

Ack ack(int file, Ack::Status status = Ack::Status::ok,
        std::optional<std::string> message = std::nullopt) {
    return Ack{"IMG_" + std::to_string(file) + ".jpg", status, std::move(message)};
}

} // namespace

class SenderViewModelTest : public QObject {
    Q_OBJECT

    std::optional<testing::TemporaryFolder> folder_;
    std::optional<testing::ScriptedReceiver> receiver_;
    std::optional<SenderViewModel> model_; // ends a send still running before its receiver goes
    int failures_ = 0;

    /// Queues IMG_0.jpg … IMG_<count - 1>.jpg: file i holds 1000 + i bytes.
    void queueFiles(int count) {
        std::vector<std::filesystem::path> files;
        for (int i = 0; i < count; ++i) {
            files.push_back(testing::writeFile(folder_->path() / ack(i).name,
                                               testing::pattern(1000 + i, std::uint8_t(i))));
        }
        QSignalSpy finished(&model_->queue(), &TransferQueue::addFinished);
        model_->addURLs(files);
        QVERIFY(finished.wait(30'000));
    }

    /// Starts a send of the unsent items to a fresh receiver.
    void startSend(bool autoAck) {
        auto [senderEnd, receiverEnd] = testing::makeMemoryStreamPair();
        receiver_.emplace(receiverEnd, autoAck);
        model_->startSend(
            model_->queue().unsentURLs(),
            [stream = senderEnd] { return std::make_unique<FrameChannel>(stream); },
            [this] { ++failures_; });
    }

    bool sendEnds() {
        return QTest::qWaitFor([this] { return !model_->isSending(); }, 30'000);
    }

    QStringList statuses() {
        QStringList out;
        for (const auto& item : model_->queue().items()) {
            out << TransferQueue::statusName(item.status.kind);
        }
        return out;
    }

private slots:
    void init() {
        model_.reset();
        receiver_.reset();
        folder_.emplace();
        model_.emplace();
        failures_ = 0;
    }

    void aSendBrokenOffRequeuesWhatWasNotSavedAndTheNextSendsExactlyThat() {
        queueFiles(5);
        startSend(false);
        QCOMPARE(statuses(), QStringList(5, "sending"));
        QVERIFY(receiver_->waitForFiles(5));
        receiver_->sendAck(ack(0));
        receiver_->sendAck(ack(1, Ack::Status::error, "no space"));
        receiver_->sendAck(ack(2, Ack::Status::error));
        QTRY_COMPARE_WITH_TIMEOUT(statuses().count("sending"), 2, 30'000);
        QVERIFY(model_->statsLine().contains(" MB/s \u00B7 "));
        receiver_->closeConnection();
        QVERIFY(sendEnds());
        QCOMPARE(statuses(), QStringList({"saved", "failed", "failed", "queued", "queued"}));
        QCOMPARE(model_->queue().items()[1].status.message, "no space");
        QCOMPARE(model_->queue().items()[2].status.message, "failed");
        QCOMPARE(model_->bytesDone(), 1000); // only what was saved
        // Every file was written: acknowledgements ending early are no failure.
        QCOMPARE(failures_, 0);
        QVERIFY(!receiver_->session()->albumName.has_value());

        model_->setAlbumName("  Trip \n");
        startSend(true);
        QVERIFY(sendEnds());
        QCOMPARE(receiver_->files().size(), std::size_t{4}); // IMG_1.jpg … IMG_4.jpg
        QCOMPARE(receiver_->files().front().header.name, "IMG_1.jpg");
        QVERIFY(receiver_->session()->albumName == std::optional<std::string>("Trip"));
        QCOMPARE(statuses(), QStringList(5, "saved"));
        QCOMPARE(model_->bytesDone(), 1001 + 1002 + 1003 + 1004);
        QVERIFY(model_->statsLine().startsWith("0 MB in "));
        QCOMPARE(failures_, 0);
    }

    void aChannelThatCannotStartDropsTheSend() {
        queueFiles(2);
        model_->startSend(
            model_->queue().unsentURLs(),
            []() -> std::unique_ptr<FrameChannel> { throw StreamError::refused("no route"); },
            [this] { ++failures_; });
        QVERIFY(sendEnds());
        QCOMPARE(failures_, 1);
        QCOMPARE(statuses(), QStringList({"queued", "queued"}));
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
        const std::pair<QString, QString> lines[] = {
            {SenderViewModel::progressLine(2'603'614'208, 65.0), "38.2 MB/s \u00B7 1:05"},
            {SenderViewModel::summaryLine(1187LL * 1'048'576, 65.0),
             "1187 MB in 1:05 \u00B7 avg 18.3 MB/s"},
            {SenderViewModel::clock(59.5), "1:00"},
            {SenderViewModel::clock(3725), "62:05"},
        };
        for (const auto& [line, expected] : lines) {
            QCOMPARE(line, expected);
        }
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::SenderViewModelTest)
#include "SenderViewModelTest.moc"
