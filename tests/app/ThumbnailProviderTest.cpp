#include "Sender/ThumbnailProvider.h"

#include <QSignalSpy>
#include <QTest>
#include <QThread>

namespace kestrelvane {

namespace fs = std::filesystem;

namespace {

fs::path fixture(const char* name) {
    return fs::path(KV_FIXTURES_DIR) / "thumbnails" / name;
}

} // namespace

class ThumbnailProviderTest : public QObject {
    Q_OBJECT

private slots:
    void eachDecoderGivesAThumbnailOfTheRequestedSize_data() {
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::newRow("jpeg") << "landscape.jpg" << 96 << 72;
        QTest::newRow("heic") << "portrait.heic" << 72 << 96;
        QTest::newRow("video") << "clip.mov" << 96 << 54;
    }
    void eachDecoderGivesAThumbnailOfTheRequestedSize() {
        QFETCH(QString, file);
        QFETCH(int, width);
        QFETCH(int, height);
        const QImage image = ThumbnailProvider::generate(fixture(file.toUtf8().constData()), 96);
        QVERIFY(!image.isNull());
        QCOMPARE(image.width(), width);
        QCOMPARE(image.height(), height);
    }

    void aDngThumbnailIsMadeFromItsEmbeddedPreview() {
        // The main image is colour-filter-array data Qt cannot read; only the
        // red preview in its SubIFD can give the picture.
        const fs::path dng = fixture("preview.dng");
        QVERIFY(QImage(QString::fromStdString(dng.string())).isNull());
        const QImage image = ThumbnailProvider::generate(dng, 96);
        QCOMPARE(image.size(), QSize(96, 72));
        const QColor centre = image.pixelColor(48, 36);
        QVERIFY2(centre.red() > 180 && centre.green() < 70 && centre.blue() < 70,
                 qPrintable(centre.name()));
    }

    void smallImagesAreNotEnlargedAndNonImagesGiveNothing() {
        const fs::path media = fs::path(KV_FIXTURES_DIR) / "media";
        const QImage small = ThumbnailProvider::generate(media / "jpeg-original.jpg", 96);
        QVERIFY(!small.isNull());
        QVERIFY(small.width() <= 96 && small.height() <= 96);
        QVERIFY(ThumbnailProvider::generate(media / "not-an-image.jpg", 96).isNull());
        QVERIFY(ThumbnailProvider::generate(media / "missing.heic", 96).isNull());
        QVERIFY(ThumbnailProvider::generate(media / "missing.mov", 96).isNull());
    }

    void thumbnailsAreDeliveredOnTheOwnersThreadAndOnlyForRealImages() {
        ThumbnailProvider provider;
        QSignalSpy ready(&provider, &ThumbnailProvider::thumbnailReady);
        QThread* owner = QThread::currentThread();
        bool onOwner = true;
        connect(&provider, &ThumbnailProvider::thumbnailReady, this,
                [&] { onOwner = onOwner && QThread::currentThread() == owner; });
        provider.request("jpeg", fixture("landscape.jpg"), 48);
        provider.request("broken", fs::path(KV_FIXTURES_DIR) / "media" / "not-an-image.jpg", 48);
        provider.request("video", fixture("clip.mov"), 48);
        QTRY_COMPARE_WITH_TIMEOUT(ready.count(), 2, 30'000);
        QVERIFY(provider.waitForDone(30'000));
        QCoreApplication::processEvents();
        QCOMPARE(ready.count(), 2);
        QVERIFY(onOwner);
        QStringList ids{ready[0][0].toString(), ready[1][0].toString()};
        ids.sort();
        QCOMPARE(ids, (QStringList{"jpeg", "video"}));
        QCOMPARE(ready[0][1].value<QImage>().width(), 48);
    }

    void cancelledRequestsDeliverNothing() {
        ThumbnailProvider provider(1);
        QSignalSpy ready(&provider, &ThumbnailProvider::thumbnailReady);
        for (int i = 0; i < 40; ++i) {
            provider.request(QString::number(i), fixture("landscape.jpg"), 48);
        }
        provider.cancel("39");
        provider.cancelAll();
        provider.request("last", fixture("landscape.jpg"), 48);
        QTRY_VERIFY_WITH_TIMEOUT(
            ready.count() >= 1 && ready.last()[0].toString() == QStringLiteral("last"), 30'000);
        QVERIFY(provider.waitForDone(30'000));
        QCoreApplication::processEvents();
        QCOMPARE(ready.count(), 1);
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::ThumbnailProviderTest)
#include "ThumbnailProviderTest.moc"
