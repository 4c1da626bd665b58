#include "Sender/TransferQueue.h"

#include "KestrelvaneKit/intake/QueuePlanner.h"
#include "MediaFiles.h"
#include "Sender/ThumbnailProvider.h"
#include "support/TemporaryFolder.h"

#include <QSignalSpy>
#include <QTest>

namespace kestrelvane {

namespace fs = std::filesystem;
using Status = TransferQueue::Status;
using testing::writeFile;

namespace {

/// Adds `urls` and waits for the drop to be planned and appended.
bool addAndWait(TransferQueue& queue, const std::vector<fs::path>& urls) {
    QSignalSpy finished(&queue, &TransferQueue::addFinished);
    queue.add(urls);
    return finished.wait(30'000);
}

QStringList names(const TransferQueue& queue) {
    QStringList out;
    for (const auto& item : queue.items()) {
        out << item.name;
    }
    return out;
}

} // namespace

class TransferQueueTest : public QObject {
    Q_OBJECT

private slots:
    void newItemsAreQueuedWithTheirSizeTypeAndId() {
        testing::TemporaryFolder folder;
        const fs::path photo = writeFile(folder.path() / "sub" / "IMG_1.JPG", 1234);
        writeFile(folder.path() / "clip.mov", 10);
        TransferQueue queue;
        QVERIFY(addAndWait(queue, {folder.path() / "sub" / ".." / "sub" / "IMG_1.JPG",
                                   folder.path() / "clip.mov"}));
        QCOMPARE(queue.rowCount(), 2);
        const auto& item = queue.items()[0];
        QCOMPARE(item.id, QString::fromStdString(photo.string()));
        QCOMPARE(item.name, QStringLiteral("IMG_1.JPG"));
        QCOMPARE(item.size, 1234);
        QVERIFY(item.mediaType == MediaType::photo);
        QVERIFY(item.status == Status::queued());
        QVERIFY(queue.items()[1].mediaType == MediaType::video);
        QCOMPARE(queue.totalBytes(), 1244);
        QCOMPARE(queue.data(queue.index(1), TransferQueue::StatusRole).toString(),
                 QStringLiteral("queued"));
    }

    void theSameFileIsQueuedOnceEvenWhenASecondDropArrivesDuringPlanning() {
        testing::TemporaryFolder folder;
        const fs::path photo = writeFile(folder.path() / "a.jpg", 5);
        const fs::path other = writeFile(folder.path() / "b.jpg", 5);
        TransferQueue queue;
        QSignalSpy finished(&queue, &TransferQueue::addFinished);
        queue.add({photo, photo});
        queue.add({folder.path()}); // arrives while the first drop is planned
        queue.add({photo, other});
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 3, 30'000);
        QCOMPARE(names(queue), (QStringList{"a.jpg", "b.jpg"}));
        QVERIFY(!queue.isPlanning());
        QVERIFY(addAndWait(queue, {photo}));
        QCOMPARE(queue.rowCount(), 2);
    }

    void aFolderAddsItsMediaInPlannerOrderOneAnnouncementPerItem() {
        testing::TemporaryFolder folder;
        writeFile(folder.path() / "pics" / "b.jpg", 1);
        writeFile(folder.path() / "pics" / "notes.txt", 1);
        writeFile(folder.path() / "pics" / "A.png", 1);
        writeFile(folder.path() / "pics" / "deep" / "c.mov", 1);
        const fs::path loose = writeFile(folder.path() / "z.heic", 1);
        const std::vector<fs::path> drop{loose, folder.path() / "pics"};

        QStringList expected;
        for (const auto& path : QueuePlanner::plan(drop, {})) {
            expected << QString::fromStdString(path.filename().string());
        }
        QCOMPARE(expected.size(), 4);

        TransferQueue queue;
        QSignalSpy inserted(&queue, &QAbstractItemModel::rowsInserted);
        QVERIFY(addAndWait(queue, drop));
        QCOMPARE(names(queue), expected);
        QCOMPARE(inserted.count(), 4);
        for (int i = 0; i < inserted.count(); ++i) {
            QCOMPARE(inserted[i][1].toInt(), i);
            QCOMPARE(inserted[i][2].toInt(), i);
        }
    }

    void clearingCancelsTheDropsStillBeingPlannedOrAppended() {
        testing::TemporaryFolder folder;
        for (int i = 0; i < 200; ++i) {
            writeFile(folder.path() / "big" / ("IMG_" + std::to_string(i) + ".jpg"), 1);
        }
        const fs::path late = writeFile(folder.path() / "late.jpg", 1);
        TransferQueue queue;
        QSignalSpy finished(&queue, &TransferQueue::addFinished);

        // Cleared while the first drop is planned and the second waits for it.
        queue.add({folder.path() / "big"});
        queue.add({folder.path() / "big"});
        queue.clear();
        QVERIFY(!queue.isPlanning());
        // Drops are planned and appended in order: once this one is in, the others are over.
        QVERIFY(addAndWait(queue, {late}));
        QCOMPARE(names(queue), QStringList{"late.jpg"});
        QCOMPARE(finished.count(), 1);

        // Cleared by the first row of a drop: the rest of it stays out, and
        // the drop is not reported as finished, also when that row was its last.
        for (const fs::path& dropped : {folder.path() / "big", late}) {
            QMetaObject::Connection clearOnce;
            clearOnce = connect(&queue, &QAbstractItemModel::rowsInserted, &queue, [&] {
                QObject::disconnect(clearOnce);
                queue.clear();
            });
            queue.add({dropped});
            QTRY_VERIFY_WITH_TIMEOUT(!queue.isPlanning(), 30'000);
            QCOMPARE(queue.rowCount(), 0);
            QCOMPARE(finished.count(), 1);
        }
        QVERIFY(addAndWait(queue, {late}));
        QCOMPARE(names(queue), QStringList{"late.jpg"});
    }

    void sameNamesAllBecomeSendingButSetStatusChangesOnlyTheFirst() {
        testing::TemporaryFolder folder;
        const fs::path first = writeFile(folder.path() / "one" / "IMG.jpg", 1);
        const fs::path second = writeFile(folder.path() / "two" / "IMG.jpg", 1);
        const fs::path third = writeFile(folder.path() / "two" / "other.jpg", 1);
        TransferQueue queue;
        QVERIFY(addAndWait(queue, {first, second, third}));

        QSignalSpy changed(&queue, &QAbstractItemModel::dataChanged);
        queue.markSending({"IMG.jpg"});
        QCOMPARE(changed.count(), 2);
        QVERIFY(queue.items()[0].status == Status::sending());
        QVERIFY(queue.items()[1].status == Status::sending());
        QVERIFY(queue.items()[2].status == Status::queued());

        queue.setStatus(Status::failed("disk full"), "IMG.jpg");
        QVERIFY(queue.items()[0].status == Status::failed("disk full"));
        QVERIFY(queue.items()[1].status == Status::sending());
        queue.setStatus(Status::saved(), "missing.jpg");
        QCOMPARE(changed.count(), 3);
        QCOMPARE(queue.data(queue.index(0), TransferQueue::StatusMessageRole).toString(),
                 QStringLiteral("disk full"));
    }

    void revertingAndUnsentLeaveSavedAndFailedItemsAlone() {
        testing::TemporaryFolder folder;
        std::vector<fs::path> files;
        for (const char* name : {"a.jpg", "b.jpg", "c.jpg", "d.jpg"}) {
            files.push_back(writeFile(folder.path() / name, 1));
        }
        TransferQueue queue;
        QVERIFY(addAndWait(queue, files));
        queue.markSending({"a.jpg", "b.jpg", "c.jpg"});
        queue.setStatus(Status::saved(), "a.jpg");
        queue.setStatus(Status::failed("bad"), "b.jpg");
        queue.revertSending();
        QVERIFY(queue.items()[0].status == Status::saved());
        QVERIFY(queue.items()[1].status == Status::failed("bad"));
        QVERIFY(queue.items()[2].status == Status::queued());
        QCOMPARE(queue.savedCount(), 1);
        QCOMPARE(queue.unsentItems().size(), std::size_t{3});
        QVERIFY((queue.unsentURLs() == std::vector<fs::path>{files[1], files[2], files[3]}));

        for (const char* name : {"b.jpg", "c.jpg", "d.jpg"}) {
            queue.setStatus(Status::saved(), name);
        }
        QVERIFY(queue.unsentURLs().empty());
        QCOMPARE(queue.savedCount(), 4);
        QCOMPARE(queue.unsentCount(), 0);

        // The counts follow a saved file that is sent again, removed items, and a clear.
        queue.setStatus(Status::failed("gone"), "a.jpg");
        QCOMPARE(queue.savedCount(), 3);
        QCOMPARE(queue.unsentCount(), 1);
        queue.remove({queue.items()[0].id, queue.items()[1].id});
        QCOMPARE(queue.savedCount(), 2);
        QCOMPARE(queue.unsentCount(), 0);
        queue.clear();
        QCOMPARE(queue.savedCount(), 0);
        QCOMPARE(queue.unsentCount(), 0);
        QVERIFY(addAndWait(queue, {files[0]}));
        QCOMPARE(queue.unsentCount(), 1);
    }

    void removeKeepsTheOthersInOrder() {
        testing::TemporaryFolder folder;
        std::vector<fs::path> files;
        for (const char* name : {"a.jpg", "b.jpg", "c.jpg", "d.jpg"}) {
            files.push_back(writeFile(folder.path() / name, 1));
        }
        TransferQueue queue;
        QVERIFY(addAndWait(queue, files));
        queue.remove({queue.items()[0].id, queue.items()[2].id, "not-there"});
        QCOMPARE(names(queue), (QStringList{"b.jpg", "d.jpg"}));
    }

    void aThumbnailArrivesForItsItemAndIsDroppedForARemovedOne() {
        testing::TemporaryFolder folder;
        const fs::path source = fs::path(KV_FIXTURES_DIR) / "thumbnails" / "landscape.jpg";
        fs::copy_file(source, folder.path() / "kept.jpg");
        fs::copy_file(source, folder.path() / "gone.jpg");
        TransferQueue queue;
        QVERIFY(addAndWait(queue, {folder.path() / "kept.jpg", folder.path() / "gone.jpg"}));
        const QString goneID = queue.items()[1].id;
        queue.remove({goneID});
        QTRY_VERIFY_WITH_TIMEOUT(!queue.items()[0].thumbnail.isNull(), 30'000);
        QVERIFY(queue.thumbnails().waitForDone(30'000));
        QCoreApplication::processEvents();
        QCOMPARE(queue.rowCount(), 1);

        // A late delivery for the removed id changes nothing.
        QSignalSpy changed(&queue, &QAbstractItemModel::dataChanged);
        queue.applyThumbnail(goneID, QImage(4, 4, QImage::Format_RGB32));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(queue.rowCount(), 1);
        QVERIFY(!queue.data(queue.index(0), Qt::DecorationRole).isNull());
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::TransferQueueTest)
#include "TransferQueueTest.moc"
