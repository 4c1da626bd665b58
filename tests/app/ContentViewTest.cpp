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

template <typename T> T* child(QWidget& view, const char* name) {
    auto* found = view.findChild<T*>(QString::fromLatin1(name));
    if (found == nullptr) {
        qFatal("no widget named %s", name);
    }
    return found;
}

/// The rows' statuses, or their names, in order.
QStringList column(const TransferQueue& queue, int role) {
    QStringList out;
    for (int row = 0; row < queue.rowCount(); ++row) {
        out << queue.data(queue.index(row), role).toString();
    }
    return out;
}

/// Plugs a phone into the simulator: true once it is attached.
bool plugIn(const testing::SimulatorProcess& sim, const std::string& phone) {
    PropertyList body = PropertyList::dictionary();
    body.set("MessageType", PropertyList::string("Attach"));
    body.set("Phone", PropertyList::string(phone));
    return sim.request(body) == 0;
}

} // namespace

class ContentViewTest : public QObject {
    Q_OBJECT

    std::unique_ptr<testing::TemporaryFolder> folder_;

private slots:
    void init() { folder_ = std::make_unique<testing::TemporaryFolder>(); }
    void cleanup() { folder_.reset(); }

    // Drop → send over the simulator's USB tunnel → the phone is unplugged
    // mid-send → plugged in again → resume → all saved.
    void aDropSentToAPhoneUnpluggedMidSendIsResumedAndSaved() {
        const fs::path phoneFolder = folder_->path() / "phone";
        fs::create_directories(phoneFolder);
        const std::string phone = "PHONE,0x12a8,folder=" + phoneFolder.string();
        testing::SimulatorProcess sim({}); // nothing plugged in yet
        ContentView view(sim.address(), std::chrono::milliseconds(20));
        view.resize(640, 480);
        TransferQueue& queue = view.viewModel().queue();
        auto* button = child<QPushButton>(view, "primaryButton");
        auto* status = child<QLabel>(view, "deviceStatus");
        auto* album = child<QLineEdit>(view, "albumField");
        auto* clear = child<QPushButton>(view, "clearButton");
        QSignalSpy passes(&view.discovery(), &UsbmuxdDiscovery::passFinished);
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        QVERIFY(child<QWidget>(view, "emptyState")->isVisible());
        saveScreenshot(view, QStringLiteral("window-empty"));

        // A small photo first, then two large ones still on their way when it is saved.
        const fs::path in = folder_->path() / "in";
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
        QCOMPARE(column(queue, TransferQueue::NameRole),
                 QStringList({"IMG_0.jpg", "IMG_1.jpg", "IMG_2.jpg"}));
        QTRY_VERIFY_WITH_TIMEOUT(passes.count() >= 2, 30'000);
        QCOMPARE(status->text(), "Plug in your iPhone");
        QCOMPARE(button->text(), "Send 3 →");
        QVERIFY(!button->isEnabled());

        QVERIFY(plugIn(sim, phone));
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
        QVERIFY(view.viewModel().isSending());
        QCOMPARE(column(queue, TransferQueue::StatusRole), QStringList(3, "sending"));
        QVERIFY(!album->isEnabled());
        QVERIFY(!clear->isEnabled());
        QVERIFY(!button->isEnabled());
        QCOMPARE(status->text(), "Open Kestrelvane on your iPhone");
        saveScreenshot(view, QStringLiteral("window-sending"));

        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 30'000);
        QVERIFY(unplugged);
        QCOMPARE(column(queue, TransferQueue::StatusRole),
                 QStringList({"saved", "queued", "queued"}));
        QCOMPARE(button->text(), "Resume 2 →");
        QVERIFY(album->isEnabled());
        QVERIFY(clear->isEnabled());
        QTRY_COMPARE_WITH_TIMEOUT(status->text(), "Plug in your iPhone", 30'000);
        QVERIFY(!button->isEnabled());

        QVERIFY(plugIn(sim, phone));
        QTRY_VERIFY_WITH_TIMEOUT(button->isEnabled(), 30'000);
        QTest::mouseClick(button, Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 60'000);
        QCOMPARE(column(queue, TransferQueue::StatusRole), QStringList(3, "saved"));
        for (const fs::path& photo : photos) {
            QCOMPARE(Checksum::sha256HexOfFile(phoneFolder / "Trip" / photo.filename()),
                     Checksum::sha256HexOfFile(photo));
        }
        QCOMPARE(button->text(), "Sent ✓");
        QVERIFY(!button->isEnabled());
        QVERIFY(child<QLabel>(view, "statsLine")->isVisible() &&
                child<QLabel>(view, "statsLine")->text().contains(QStringLiteral(" MB in ")));
        QTRY_COMPARE_WITH_TIMEOUT(status->text(), "● iPhone ready", 30'000);
        saveScreenshot(view, QStringLiteral("window-sent"));

        QTest::mouseClick(clear, Qt::LeftButton);
        QCOMPARE(queue.rowCount(), 0);
        QVERIFY(child<QWidget>(view, "emptyState")->isVisible());
        view.hide();
        QVERIFY(!view.discovery().isRunning());
        QVERIFY(!view.browser().isBrowsing());
    }

    void aFailedRowGivesItsReasonOnHover() {
        TransferQueue queue;
        QSignalSpy added(&queue, &TransferQueue::addFinished);
        queue.add({testing::writeFile(folder_->path() / "a.jpg", "x"),
                   testing::writeFile(folder_->path() / "b.jpg", "x")});
        QVERIFY(added.wait(30'000));
        queue.setStatus(TransferQueue::Status::failed(QStringLiteral("checksum mismatch")),
                        "b.jpg");
        QCOMPARE(QueueRowDelegate::statusHelp(queue.index(1)), "checksum mismatch");
        QVERIFY(QueueRowDelegate::statusHelp(queue.index(0)).isEmpty());
    }

    void theToolbarShowsEveryDeviceStatusWholeFromTheMinimumWidthOn() {
        ContentView view({(folder_->path() / "absent").string(), {}, 0},
                         std::chrono::milliseconds(20));
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        auto* status = child<QLabel>(view, "deviceStatus");
        auto* toolbar = child<QWidget>(view, "toolbar");
        for (const int width : {560, 640}) {
            view.resize(width, 460);
            for (const Kind kind : {Kind::ready, Kind::noDevice, Kind::appNotListening}) {
                status->setText(ContentView::deviceText(kind));
                QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
                const int needed = status->fontMetrics().horizontalAdvance(status->text());
                QVERIFY2(status->contentsRect().width() >= needed,
                         qPrintable(QStringLiteral("%1 px for \"%2\" at %3 px wide")
                                        .arg(status->contentsRect().width())
                                        .arg(status->text())
                                        .arg(width)));
                QVERIFY(status->geometry().right() < toolbar->width());
            }
        }
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::ContentViewTest)
#include "ContentViewTest.moc"
