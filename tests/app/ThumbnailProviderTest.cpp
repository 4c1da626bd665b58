#include "Sender/ThumbnailProvider.h"

#include <QSignalSpy>
#include <QTest>

namespace kestrelvane {

namespace fs = std::filesystem;

namespace {

fs::path fixture(const QString& name) {
    return fs::path(KV_FIXTURES_DIR) / name.toStdString();
}

} // namespace

class ThumbnailProviderTest : public QObject {
    Q_OBJECT

private slots:
    void eachDecoderGivesAThumbnailOfTheRequestedSize_data() {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QSize>("size"); // 0 × 0: no thumbnail
        QTest::newRow("jpeg") << "thumbnails/landscape.jpg" << QSize(96, 72);
        QTest::newRow("heic") << "thumbnails/portrait.heic" << QSize(72, 96);
        QTest::newRow("video") << "thumbnails/clip.mov" << QSize(96, 54);
        // Colour-filter-array data Qt cannot read: only the red preview in its SubIFD can serve.
        QTest::newRow("dng preview") << "thumbnails/preview.dng" << QSize(96, 72);
        QTest::newRow("small, not enlarged") << "media/jpeg-original.jpg" << QSize(16, 16);
        QTest::newRow("not an image") << "media/not-an-image.jpg" << QSize(0, 0);
        QTest::newRow("missing photo") << "media/missing.heic" << QSize(0, 0);
        QTest::newRow("missing video") << "media/missing.mov" << QSize(0, 0);
    }
    void eachDecoderGivesAThumbnailOfTheRequestedSize() {
        QFETCH(QString, file);
        QFETCH(QSize, size);
        const QImage image = ThumbnailProvider::generate(fixture(file), 96);
        QCOMPARE(image.size(), size);
        if (file.endsWith(".dng")) {
            const QColor centre = image.pixelColor(48, 36);
            QVERIFY2(centre.red() > 180 && centre.green() < 70 && centre.blue() < 70,
                     qPrintable(centre.name()));
        }
    }

    void thumbnailsArriveOnlyForRealImagesAndNotOnceCancelled() {
        ThumbnailProvider provider(1);
        QSignalSpy ready(&provider, &ThumbnailProvider::thumbnailReady);
        provider.request("jpeg", fixture("thumbnails/landscape.jpg"), 48);
        provider.request("broken", fixture("media/not-an-image.jpg"), 48);
        QVERIFY(provider.waitForDone(30'000));
        QTRY_COMPARE_WITH_TIMEOUT(ready.count(), 1, 30'000);
        QCOMPARE(ready[0][0].toString(), "jpeg");
        QCOMPARE(ready[0][1].value<QImage>().width(), 48);

        ready.clear();
        for (int i = 0; i < 40; ++i) {
            provider.request(QString::number(i), fixture("thumbnails/landscape.jpg"), 48);
        }
        provider.cancel("39");
        provider.cancelAll();
        provider.request("last", fixture("thumbnails/landscape.jpg"), 48);
        QTRY_VERIFY_WITH_TIMEOUT(!ready.isEmpty() && ready.last()[0].toString() == "last", 30'000);
        QVERIFY(provider.waitForDone(30'000));
        QCoreApplication::processEvents();
        QCOMPARE(ready.count(), 1);
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::ThumbnailProviderTest)
#include "ThumbnailProviderTest.moc"
