#include "Sender/ContentView.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "Sender/QueueRowDelegate.h"
#include "support/SimulatorProcess.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <QAbstractItemView>
#include <QDir>
#include <QDropEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

namespace kestrelvane {

namespace fs = std::filesystem;
using Kind = UsbmuxdDiscovery::State::Kind;

namespace {

void saveScreenshot(QWidget& widget, const QString& name) {
    QDir().mkpath(QStringLiteral(KV_SCREENSHOT_DIR));
    const QString path = QStringLiteral(KV_SCREENSHOT_DIR "/%1.png").arg(name);
    // Laid out as the next turn of the event loop would, without running it:
    // item views lay out their rows on a timer of their own.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
    for (auto* view : widget.findChildren<QAbstractItemView*>()) {
        view->doItemsLayout();
    }
    QVERIFY(widget.grab().save(path, "PNG"));
    qInfo("screenshot: %s", qPrintable(path));
}

QStringList statuses(const TransferQueue& queue) {
    QStringList out;
    for (const auto& item : queue.items()) {
        out << TransferQueue::statusName(item.status.kind);
    }
    return out;
}

} // namespace

class ContentViewTest : public QObject {
    Q_OBJECT

private slots:
    // Drop → send over the simulator's USB tunnel → the phone is unplugged
    // mid-send → plugged in again → resume → all saved.
    void aDropSentToAPhoneUnpluggedMidSendIsResumedAndSaved() {
        testing::TemporaryFolder folder;
        const fs::path in = folder.path() / "in";
        const fs::path phoneFolder = folder.path() / "phone";
        fs::create_directories(phoneFolder);
        const std::string phone = "PHONE,0x12a8,folder=" + phoneFolder.string();
        testing::SimulatorProcess sim({phone});
        ContentView view(sim.address(), std::chrono::milliseconds(20));
        view.resize(640, 480);
        TransferQueue& queue = view.viewModel().queue();
        auto* button = view.findChild<QPushButton*>("primaryButton");
        auto* status = view.findChild<QLabel*>("deviceStatus");
        auto* album = view.findChild<QLineEdit*>("albumField");
        auto* clear = view.findChild<QPushButton*>("clearButton");
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        QVERIFY(view.findChild<QWidget*>("emptyState")->isVisible());
        saveScreenshot(view, QStringLiteral("window-empty"));

        // A small photo first, then two large ones still on their way when it is saved.
        const std::vector<fs::path> photos{
            testing::writeFile(in / "IMG_0.jpg", testing::pattern(1000)),
            testing::writeFile(in / "IMG_1.jpg", testing::pattern(24 << 20, 1)),
            testing::writeFile(in / "IMG_2.jpg", testing::pattern(24 << 20, 2))};
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(QString::fromStdString(in.string()))});
        QDragEnterEvent enter({320, 240}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &enter);
        QVERIFY(enter.isAccepted());
        QSignalSpy added(&queue, &TransferQueue::addFinished);
        QDropEvent dropped({320, 240}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &dropped);
        QVERIFY(added.wait(30'000));
        QCOMPARE(button->text(), "Send 3 →");
        QTRY_VERIFY_WITH_TIMEOUT(button->isEnabled(), 30'000);
        QCOMPARE(status->text(), "● iPhone ready");
        album->setText(QStringLiteral("Trip"));
        bool unplugged = false;
        QMetaObject::Connection unplug;
        unplug = connect(&queue, &QAbstractItemModel::dataChanged, this, [&] {
            if (queue.savedCount() > 0) {
                QObject::disconnect(unplug);
                unplugged = sim.detach("PHONE");
            }
        });
        QTest::mouseClick(button, Qt::LeftButton);
        // The hand-over is synchronous: the window shows the send before any reply.
        QCOMPARE(statuses(queue), QStringList(3, "sending"));
        QVERIFY(!album->isEnabled());
        QVERIFY(!clear->isEnabled());
        QVERIFY(!button->isEnabled());
        saveScreenshot(view, QStringLiteral("window-sending"));

        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 30'000);
        QVERIFY(unplugged);
        QCOMPARE(statuses(queue), QStringList({"saved", "queued", "queued"}));
        QCOMPARE(button->text(), "Resume 2 →");
        QTRY_COMPARE_WITH_TIMEOUT(status->text(), "Plug in your iPhone", 30'000);
        QVERIFY(!button->isEnabled());

        PropertyList plugIn = PropertyList::dictionary();
        plugIn.set("MessageType", PropertyList::string("Attach"));
        plugIn.set("Phone", PropertyList::string(phone));
        QVERIFY(sim.request(plugIn) == 0);
        QTRY_VERIFY_WITH_TIMEOUT(button->isEnabled(), 30'000);
        QTest::mouseClick(button, Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 60'000);
        QCOMPARE(statuses(queue), QStringList(3, "saved"));
        for (const fs::path& photo : photos) {
            QCOMPARE(Checksum::sha256HexOfFile(phoneFolder / "Trip" / photo.filename()),
                     Checksum::sha256HexOfFile(photo));
        }
        QCOMPARE(button->text(), "Sent ✓");
        QVERIFY(view.findChild<QLabel*>("statsLine")->text().contains(" MB in "));
        QTRY_COMPARE_WITH_TIMEOUT(status->text(), "● iPhone ready", 30'000);
        saveScreenshot(view, QStringLiteral("window-sent"));

        // A file the phone refuses gives its reason as its status' hover text.
        queue.setStatus(TransferQueue::Status::failed(QStringLiteral("disk full")), "IMG_1.jpg");
        QCOMPARE(QueueRowDelegate::statusHelp(queue.index(1)), "disk full");
        QVERIFY(QueueRowDelegate::statusHelp(queue.index(0)).isEmpty());

        QTest::mouseClick(clear, Qt::LeftButton);
        QVERIFY(view.findChild<QWidget*>("emptyState")->isVisible());
        view.hide();
        QVERIFY(!view.discovery().isRunning());
        QVERIFY(!view.browser().isBrowsing());
    }

    void theToolbarShowsEveryDeviceStatusWholeFromTheMinimumWidthOn() {
        ContentView view({"/nonexistent/usbmuxd", {}, 0}, std::chrono::milliseconds(20));
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        auto* status = view.findChild<QLabel*>("deviceStatus");
        for (const int width : {560, 640}) {
            view.resize(width, 460);
            for (const Kind kind : {Kind::ready, Kind::noDevice, Kind::appNotListening}) {
                status->setText(ContentView::deviceText(kind));
                QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
                const int needed = status->fontMetrics().horizontalAdvance(status->text());
                QVERIFY2(status->contentsRect().width() >= needed, qPrintable(status->text()));
                QVERIFY(status->geometry().right() < view.findChild<QWidget*>("toolbar")->width());
            }
        }
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::ContentViewTest)
#include "ContentViewTest.moc"
