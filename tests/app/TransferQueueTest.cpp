#include "Sender/TransferQueue.h"

#include "KestrelvaneKit/intake/QueuePlanner.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <QSignalSpy>
#include <QTest>

namespace kestrelvane {

namespace fs = std::filesystem;
using Status = TransferQueue::Status;

class TransferQueueTest : public QObject {
    Q_OBJECT

    std::optional<testing::TemporaryFolder> folder_;
    std::optional<TransferQueue> queue_;

    /// One-byte files at these paths in the folder.
    std::vector<fs::path> files(std::initializer_list<std::string> names) {
        std::vector<fs::path> out;
        for (const auto& name : names) {
            out.push_back(testing::writeFile(folder_->path() / name, "x"));
        }
        return out;
    }

    bool addAndWait(const std::vector<fs::path>& urls) {
        QSignalSpy finished(&*queue_, &TransferQueue::addFinished);
        queue_->add(urls);
        return finished.wait(30'000);
    }

    QStringList column(int role) const {
        QStringList out;
        for (int row = 0; row < queue_->rowCount(); ++row) {
            out << queue_->data(queue_->index(row), role).toString();
        }
        return out;
    }

private slots:
    void init() {
        queue_.reset();
        folder_.emplace();
        queue_.emplace();
    }

    void dropsAreQueuedInPlannerOrderWithTheirTypeAndSizeAndNoFileTwice() {
        const auto paths =
            files({"z.heic", "pics/b.jpg", "pics/notes.txt", "pics/A.png", "pics/deep/c.mov"});
        testing::writeFile(paths[0], testing::pattern(1234));
        const std::vector<fs::path> drop{paths[0], folder_->path() / "pics"};
        QStringList names;
        QStringList types;
        for (const auto& path : QueuePlanner::plan(drop, {})) {
            names << QString::fromStdString(path.filename().string());
            types << (path.extension() == ".mov" ? "video" : "photo");
        }
        QCOMPARE(names.size(), 4);

        QSignalSpy finished(&*queue_, &TransferQueue::addFinished);
        queue_->add(drop);
        queue_->add({paths[1], paths[1]}); // arrive while the first drop is planned
        queue_->add({folder_->path()});
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 3, 30'000);
        QVERIFY(addAndWait({paths[0]}));
        QCOMPARE(column(TransferQueue::NameRole), names);
        QCOMPARE(column(TransferQueue::MediaTypeRole), types);
        QCOMPARE(queue_->totalBytes(), 1234 + 3);
    }

    void clearingCancelsTheDropsStillBeingPlannedOrAppended() {
        for (int i = 0; i < 200; ++i) {
            files({"big/IMG_" + std::to_string(i) + ".jpg"});
        }
        const fs::path late = files({"late.jpg"})[0];
        QSignalSpy finished(&*queue_, &TransferQueue::addFinished);

        // Cleared while the first drop is planned and the second waits for it.
        queue_->add({folder_->path() / "big"});
        queue_->add({folder_->path() / "big"});
        queue_->clear();
        QVERIFY(!queue_->isPlanning());
        // Drops are planned and appended in order: once this one is in, the others are over.
        QVERIFY(addAndWait({late}));
        QCOMPARE(column(TransferQueue::NameRole), QStringList{"late.jpg"});
        QCOMPARE(finished.count(), 1);

        // Cleared by the first row of a drop: the rest of it stays out, and
        // the drop is not reported as finished, also when that row was its last.
        for (const fs::path& dropped : {folder_->path() / "big", late}) {
            QMetaObject::Connection clearOnce;
            clearOnce = connect(&*queue_, &QAbstractItemModel::rowsInserted, this, [&] {
                QObject::disconnect(clearOnce);
                queue_->clear();
            });
            queue_->add({dropped});
            QTRY_VERIFY_WITH_TIMEOUT(!queue_->isPlanning(), 30'000);
            QCOMPARE(queue_->rowCount(), 0);
            QCOMPARE(finished.count(), 1);
        }
        QVERIFY(addAndWait({late}));
        QCOMPARE(column(TransferQueue::NameRole), QStringList{"late.jpg"});
    }

    void statusesFollowASendAndTheCountsFollowEveryChange() {
        const auto paths = files({"one/IMG.jpg", "two/IMG.jpg", "a.jpg", "b.jpg"});
        QVERIFY(addAndWait(paths));
        QSignalSpy changed(&*queue_, &QAbstractItemModel::dataChanged);
        queue_->markSending({"IMG.jpg", "a.jpg"});
        QCOMPARE(changed.count(), 3);
        QCOMPARE(column(TransferQueue::StatusRole),
                 QStringList({"sending", "sending", "sending", "queued"}));

        // An acknowledgement names a file: the first row of that name takes it.
        queue_->setStatus(Status::failed("disk full"), "IMG.jpg");
        queue_->setStatus(Status::saved(), "a.jpg");
        queue_->setStatus(Status::saved(), "missing.jpg");
        QCOMPARE(changed.count(), 5);
        QCOMPARE(column(TransferQueue::StatusMessageRole).first(), "disk full");
        queue_->revertSending();
        QCOMPARE(column(TransferQueue::StatusRole),
                 QStringList({"failed", "queued", "saved", "queued"}));
        QCOMPARE(queue_->unsentCount(), 3);
        QVERIFY((queue_->unsentURLs() == std::vector<fs::path>{paths[0], paths[1], paths[3]}));

        queue_->setStatus(Status::saved(), "b.jpg");
        queue_->setStatus(Status::failed("gone"), "a.jpg"); // a saved file sent again
        QCOMPARE(queue_->savedCount(), 1);
        const QString removed = queue_->items()[1].id;
        queue_->remove({removed, queue_->items()[3].id, "not-there"});
        QCOMPARE(column(TransferQueue::NameRole), QStringList({"IMG.jpg", "a.jpg"}));
        QCOMPARE(queue_->savedCount(), 0);
        QCOMPARE(queue_->unsentCount(), 2);
        queue_->applyThumbnail(removed, QImage(4, 4, QImage::Format_RGB32)); // arriving late
        QCOMPARE(changed.count(), 8);
        queue_->setStatus(Status::saved(), "a.jpg");
        queue_->clear();
        QCOMPARE(queue_->savedCount(), 0);
        QCOMPARE(queue_->unsentCount(), 0);
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::TransferQueueTest)
#include "TransferQueueTest.moc"
