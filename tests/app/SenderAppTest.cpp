#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/network/PairedDevices.h"
#include "KestrelvaneKit/wire/FrameChannel.h"
#include "Sender/AppcastUpdater.h"
#include "Sender/ContentView.h"
#include "Sender/PairingDialog.h"
#include "Sender/QueueRowDelegate.h"
#include "Sender/ThumbnailProvider.h"
#include "support/CliProcess.h"
#include "support/EngineSession.h"
#include "support/MemoryStream.h"
#include "support/ScopedEnvironment.h"
#include "support/ScriptedReceiver.h"
#include "support/SimulatorProcess.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <QAbstractItemView>
#include <QAccessible>
#include <QComboBox>
#include <QCompleter>
#include <QDBusConnection>
#include <QDir>
#include <QDropEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <atomic>
#include <future>
#include <sys/resource.h>
#include <thread>

namespace kestrelvane {

namespace fs = std::filesystem;
using Kind = UsbmuxdDiscovery::State::Kind;
using Check = AppcastUpdater::Result::Kind;

namespace {

constexpr std::chrono::milliseconds testInterval{20};

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

QStringList column(const TransferQueue& queue, int role = TransferQueue::StatusRole) {
    QStringList out;
    for (int row = 0; row < queue.rowCount(); ++row) {
        out << queue.data(queue.index(row), role).toString();
    }
    return out;
}

/// A feed of these items, fetched through the network code from a data: URL.
QUrl servedFeed(const QByteArray& items) {
    const QByteArray body = "<rss version=\"2.0\" "
                            "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
                            "<channel>" +
                            items + "</channel></rss>";
    return QUrl(QString::fromLatin1("data:application/rss+xml;base64," + body.toBase64()));
}

} // namespace

/// The desktop's notification service, as the test plays it on the session bus.
class FakeNotifications : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QStringList shown; ///< "SUMMARY / BODY" of each notification

public slots:
    uint Notify(const QString&, uint, const QString&, const QString& summary, const QString& body,
                const QStringList&, const QVariantMap&, int) {
        shown << summary + QStringLiteral(" / ") + body;
        return static_cast<uint>(shown.size());
    }
};

class SenderAppTest : public QObject {
    Q_OBJECT

    std::optional<testing::TemporaryFolder> folder_;
    std::optional<testing::ScriptedReceiver> receiver_;
    std::optional<SenderViewModel> model_; // ends a send still running before its receiver goes
    int failures_ = 0;

    TransferQueue& queue() { return model_->queue(); }

    /// Files at these paths in the folder, the i-th of 1000 + i bytes.
    std::vector<fs::path> files(std::initializer_list<std::string> names) {
        std::vector<fs::path> out;
        for (const auto& name : names) {
            const auto i = static_cast<std::uint8_t>(out.size());
            out.push_back(
                testing::writeFile(folder_->path() / name, testing::pattern(1000 + i, i)));
        }
        return out;
    }

    bool addAndWait(const std::vector<fs::path>& urls) {
        QSignalSpy finished(&queue(), &TransferQueue::addFinished);
        queue().add(urls);
        return finished.wait(30'000);
    }

    /// Starts a send of the unsent items to a fresh receiver.
    void startSend(bool autoAck) {
        auto [senderEnd, receiverEnd] = testing::makeMemoryStreamPair();
        receiver_.emplace(receiverEnd, autoAck);
        model_->startSend(
            queue().unsentURLs(),
            [stream = senderEnd]() -> std::shared_ptr<KestrelvaneStream> { return stream; },
            [this] { ++failures_; });
    }

private slots:
    void init() {
        RememberedChoices().forget(); // each test's window starts as a first run's
        model_.emplace(); // the last one ends its send while its receiver is still there
        receiver_.reset();
        folder_.emplace();
        failures_ = 0;
    }

    // Drop → send over the simulator's USB tunnel → the phone is unplugged
    // mid-send → plugged in again → resume → all saved.
    void aDropSentToAPhoneUnpluggedMidSendIsResumedAndSaved() {
        const fs::path in = folder_->path() / "in";
        const fs::path phoneFolder = folder_->path() / "phone";
        fs::create_directories(phoneFolder);
        const std::string phone = "PHONE,0x12a8,folder=" + phoneFolder.string();
        testing::SimulatorProcess sim({phone});
        ContentView view(sim.address(), testInterval);
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
        bool unplugged = false; // once the first file is saved
        connect(&queue, &QAbstractItemModel::dataChanged, &view,
                [&] { unplugged = unplugged || (queue.savedCount() > 0 && sim.detach("PHONE")); });
        QTest::mouseClick(button, Qt::LeftButton);
        // The hand-over is synchronous: the window shows the send before any reply.
        QCOMPARE(column(queue), QStringList(3, "sending"));
        QVERIFY(!album->isEnabled());
        QVERIFY(!clear->isEnabled());
        QVERIFY(!button->isEnabled());
        saveScreenshot(view, QStringLiteral("window-sending"));

        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 30'000);
        QVERIFY(unplugged);
        QCOMPARE(column(queue), QStringList({"saved", "queued", "queued"}));
        QCOMPARE(button->text(), "Resume 2 →");
        auto* broke = view.findChild<QLabel*>("breakLine");
        QCOMPARE(broke->text(), "The iPhone went away: 1 of 3 saved. Resume sends the other 2.");
        QVERIFY(broke->isVisible());
        QTRY_COMPARE_WITH_TIMEOUT(status->text(), "Plug in your iPhone", 30'000);
        QVERIFY(!button->isEnabled());

        PropertyList plugIn = PropertyList::dictionary();
        plugIn.set("MessageType", PropertyList::string("Attach"));
        plugIn.set("Phone", PropertyList::string(phone));
        QVERIFY(sim.request(plugIn) == 0);
        QTRY_VERIFY_WITH_TIMEOUT(button->isEnabled(), 30'000);
        QTest::mouseClick(button, Qt::LeftButton);
        QVERIFY(!broke->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 60'000);
        QCOMPARE(column(queue), QStringList(3, "saved"));
        QCOMPARE(Checksum::sha256HexOfFile(phoneFolder / "Trip" / "IMG_1.jpg"), // resumed
                 Checksum::sha256HexOfFile(photos[1]));
        QCOMPARE(button->text(), "Sent ✓");
        QVERIFY(view.findChild<QLabel*>("statsLine")->text().contains(" MB in "));
        QTRY_COMPARE_WITH_TIMEOUT(status->text(), "● iPhone ready", 30'000);
        saveScreenshot(view, QStringLiteral("window-sent"));

        // A file the phone refuses gives its reason as its status' hover text.
        queue.setStatus(TransferQueue::Status::failed(QStringLiteral("disk full")),
                        queue.items()[1].url);
        QCOMPARE(QueueRowDelegate::statusHelp(queue.index(1)), "disk full");
        QVERIFY(QueueRowDelegate::statusHelp(queue.index(0)).isEmpty());

        QTest::mouseClick(clear, Qt::LeftButton);
        QVERIFY(view.findChild<QWidget*>("emptyState")->isVisible());

        // The same folder again: the phone says it holds every file, so none
        // is sent or saved a second time.
        const auto addsBefore = added.count();
        QDragEnterEvent enterAgain({320, 240}, Qt::CopyAction, &data, Qt::LeftButton,
                                   Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &enterAgain);
        QDropEvent again({320, 240}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &again);
        QTRY_COMPARE_WITH_TIMEOUT(added.count(), addsBefore + 1, 30'000);
        QTRY_VERIFY_WITH_TIMEOUT(button->isEnabled(), 30'000);
        QTest::mouseClick(button, Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 30'000);
        QCOMPARE(column(queue), QStringList(3, "saved"));
        const auto saved = fs::directory_iterator(phoneFolder / "Trip");
        QCOMPARE(std::distance(fs::begin(saved), fs::end(saved)), 3);
        // The rate line counts only bytes that crossed: none did, so there is no sum.
        QVERIFY(!view.findChild<QLabel*>("statsLine")->text().contains(" MB in "));
        QTest::mouseClick(clear, Qt::LeftButton);
        // At the minimum width the toolbar shows the longest device status whole.
        view.resize(view.minimumSize());
        status->setText(ContentView::deviceText(Kind::appNotListening));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
        QVERIFY(status->contentsRect().width() >=
                status->fontMetrics().horizontalAdvance(status->text()));
        QVERIFY(status->geometry().right() < view.findChild<QWidget*>("toolbar")->width());
        view.hide(); // a hidden window stops probing for phones and browsing the network
        QVERIFY(!view.discovery().isRunning());
        QVERIFY(!view.browser().isBrowsing());
    }

    // With no iPhone attached, a receiver the browser found and this device
    // paired with is chosen in the toolbar and sent the queue, privately; one
    // not paired is offered pairing instead.
    void aPairedReceiverOnTheNetworkIsChosenAndSentTo() {
        const testing::ScopedEnvironment home("XDG_DATA_HOME", testing::testDeviceHome().string());
        const fs::path saved = folder_->path() / "saved";
        fs::create_directories(saved);
        testing::ReceiverProcess receiver(saved, {}, {}, "127.0.0.1", {}, false);
        ContentView view(UsbmuxdClient::SocketAddress{"/nonexistent/usbmuxd", {}, 0}, testInterval);
        // The send ends while the window is not active (it is not even shown).
        view.notifyAfter = std::chrono::milliseconds(0);
        FakeNotifications desktop;
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY2(bus.registerService(QStringLiteral("org.freedesktop.Notifications")),
                 "no session bus: run under dbus-run-session");
        bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &desktop,
                           QDBusConnection::ExportAllSlots);
        auto* choice = view.findChild<QComboBox*>("destinationChoice");
        auto* button = view.findChild<QPushButton*>("primaryButton");
        auto* status = view.findChild<QLabel*>("deviceStatus");
        QCOMPARE(choice->count(), 1);
        const auto port = static_cast<std::uint16_t>(receiver.port());
        std::thread([&] {
            view.browser().resultsChanged({{"Desk", "local", "desk.local", {"127.0.0.1"}, port},
                                           {"Stranger", "local", "s.local", {"127.0.0.1"}, 9}});
        }).join();
        QTRY_COMPARE_WITH_TIMEOUT(choice->count(), 3, 30'000);
        QCOMPARE(choice->itemText(1), "Desk · paired");
        QCOMPARE(choice->itemText(2), "Stranger · not paired");

        TransferQueue& queue = view.viewModel().queue();
        QSignalSpy added(&queue, &TransferQueue::addFinished);
        const auto sent = files({"IMG_0.jpg", "VID_1.mov"});
        queue.add(sent);
        QVERIFY(added.wait(30'000));
        QVERIFY(!button->isEnabled()); // the iPhone, and none attached
        choice->setCurrentIndex(2);
        QCOMPARE(status->text(), "Not paired yet");
        QCOMPARE(button->text(), "Pair…"); // Send offers to pair first
        QVERIFY(button->isEnabled());
        choice->setCurrentIndex(1);
        QCOMPARE(status->text(), "● Paired, private");
        QVERIFY(button->isEnabled());
        view.findChild<QLineEdit*>("albumField")->setText(QStringLiteral("Trip"));
        button->click();
        QVERIFY(!choice->isEnabled());
        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 30'000);
        QCOMPARE(column(queue), QStringList(2, "saved"));
        QCOMPARE(testing::filesUnder(saved / "Trip"),
                 (std::vector<std::string>{"IMG_0.jpg", "VID_1.mov"}));
        QCOMPARE(testing::filesNotAsIn(saved / "Trip", folder_->path()),
                 std::vector<std::string>{});
        QVERIFY(receiver.says("saved   VID_1.mov"));
        QTRY_COMPARE_WITH_TIMEOUT(desktop.shown, QStringList{"All 2 saved / 2 saved, 0 not saved."},
                                  30'000);
        bus.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));
        bus.unregisterService(QStringLiteral("org.freedesktop.Notifications"));
        // The choice stays through the browser's next report.
        std::thread([&] {
            view.browser().resultsChanged({{"Desk", "local", "desk.local", {"127.0.0.1"}, port}});
        }).join();
        QTRY_COMPARE_WITH_TIMEOUT(choice->count(), 2, 30'000);
        QCOMPARE(choice->currentIndex(), 1);
        // Gone from the network, it stays chosen until it is back.
        std::thread([&] { view.browser().resultsChanged({}); }).join();
        QTRY_COMPARE_WITH_TIMEOUT(choice->currentText(), "Desk · not found", 30'000);
        QCOMPARE(status->text(), "Not on the network now");

        // The next run chooses it again and offers the album; until forgotten.
        const auto reopened = [] {
            auto next = std::make_unique<ContentView>(
                UsbmuxdClient::SocketAddress{"/nonexistent/usbmuxd", {}, 0}, testInterval);
            QCompleter* albums = next->findChild<QLineEdit*>("albumField")->completer();
            return std::pair{std::move(next), albums->model()->rowCount() > 0
                                                  ? albums->model()->index(0, 0).data().toString()
                                                  : QString()};
        };
        auto [next, album] = reopened();
        QCOMPARE(next->findChild<QComboBox*>("destinationChoice")->currentText(),
                 "Desk · not found");
        QCOMPARE(album, "Trip");
        next->forgetAction()->trigger();
        std::tie(next, album) = reopened();
        QCOMPARE(next->findChild<QComboBox*>("destinationChoice")->count(), 1);
        QVERIFY(album.isEmpty());
    }

    // Pairing from the window: each screen's code typed on the other pairs;
    // a dialog closed while it waits for the code ends the pairing and its
    // thread at once, and pairs nothing.
    void aPairingDialogPairsOnBothCodesAndEndsWhenClosedMidway() {
        const testing::TemporaryFolder laptop, saved;
        const testing::ScopedEnvironment home("XDG_DATA_HOME", laptop.path().string());
        const auto receiving = [&] {
            return std::make_unique<testing::ReceiverProcess>(
                saved.path(), std::vector<std::string>{"--allow-pairing"},
                testing::ChildProcess::Environment{}, "127.0.0.1", std::vector<std::string>{},
                false);
        };
        const auto codeShown = [](PairingDialog& dialog) {
            auto* code = dialog.findChild<QLabel*>("pairingCode");
            return QTest::qWaitFor([&] { return !code->text().isEmpty(); }, 30'000)
                       ? code->text().toStdString()
                       : std::string();
        };
        const auto pairedHere = [&] {
            return PairedDevices(laptop.path() / "kestrelvane").list().size();
        };
        const auto midway = receiving();
        {
            PairingDialog closed(Destination::address("127.0.0.1", midway->port()),
                                 QStringLiteral("“Desk”"));
            QVERIFY(!codeShown(closed).empty());
        } // destroyed while the pairing waits for this person's code
        QCOMPARE(pairedHere(), 0u);

        const auto desk = receiving();
        PairingDialog dialog(Destination::address("127.0.0.1", desk->port()),
                             QStringLiteral("“Desk”"));
        const std::string shown = codeShown(dialog);
        const std::string deskCode = desk->found("\n {4}([0-9]{3} [0-9]{3})\n");
        desk->type(shown);
        dialog.findChild<QLineEdit*>("pairingTyped")->setText(QString::fromStdString(deskCode));
        QTest::mouseClick(dialog.findChild<QPushButton*>("pairingConfirm"), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(dialog.paired(), 30'000);
        QCOMPARE(pairedHere(), 1u);
    }

    // A screen reader hears a name for every control, Tab visits them as they
    // are laid out, and each row says its state in words, not colour alone.
    void everyControlIsNamedInTabOrderAndEveryRowSaysItsState() {
        // A paired list that cannot be read shows receivers as not paired.
        const testing::TemporaryFolder home;
        const testing::ScopedEnvironment data("XDG_DATA_HOME", home.path().string());
        fs::create_directories(home.path() / "kestrelvane");
        fs::permissions(home.path() / "kestrelvane", fs::perms::owner_all);
        testing::writeFile(home.path() / "kestrelvane" / "peers.json", "{not json");
        ContentView view(UsbmuxdClient::SocketAddress{"/nonexistent/usbmuxd", {}, 0}, testInterval);
        std::thread([&] {
            view.browser().resultsChanged({{"Desk", "local", "desk.local", {"127.0.0.1"}, 9}});
        }).join();
        QTRY_COMPARE_WITH_TIMEOUT(view.findChild<QComboBox*>("destinationChoice")->count(), 2,
                                  30'000);
        QCOMPARE(view.findChild<QComboBox*>("destinationChoice")->itemText(1), "Desk · not paired");
        QStringList heard;
        QWidget* widget = view.findChild<QWidget*>("forwardSegment");
        do {
            if ((widget->focusPolicy() & Qt::TabFocus) != 0 && view.isAncestorOf(widget)) {
                heard << QAccessible::queryAccessibleInterface(widget)->text(QAccessible::Name);
            }
            widget = widget->nextInFocusChain();
        } while (widget != view.findChild<QWidget*>("forwardSegment"));
        QCOMPARE(heard, QStringList({"Send to the iPhone", "Receive from the iPhone (coming soon)",
                                     "Add photos, videos or folders", "Clear the queue",
                                     "iPhone (USB)", "Choose…", "Queue", "Album", "Sent ✓"}));

        TransferQueue& queue = view.viewModel().queue();
        QSignalSpy added(&queue, &TransferQueue::addFinished);
        const auto sent = files({"IMG_0.jpg", "IMG_1.jpg"});
        queue.add(sent);
        QVERIFY(added.wait(30'000));
        queue.markSending({sent[0]});
        queue.setBytesDone(sent[0], 500);
        queue.setStatus(TransferQueue::Status::failed(QStringLiteral("disk full")), sent[1]);
        QCOMPARE(
            column(queue, Qt::AccessibleTextRole),
            QStringList({"IMG_0.jpg, 0 MB, sending, 50 %", "IMG_1.jpg, 0 MB, failed: disk full"}));
    }

    void aLowPriorityWorkerDeliversOnTheOwnersThreadAndIsWaitedForToItsLastJobsEnd() {
        const int owner = ::getpriority(PRIO_PROCESS, 0); // on Linux, the calling thread's
        BackgroundWork work(1, BackgroundWork::Priority::low);
        std::atomic<int> workerNiceness = 0;
        QThread* deliveredOn = nullptr;
        work.runThenDeliver([&workerNiceness, &deliveredOn] {
            workerNiceness = ::getpriority(PRIO_PROCESS, 0);
            return std::function<void()>(
                [&deliveredOn] { deliveredOn = QThread::currentThread(); });
        });
        std::promise<void> started;
        std::promise<void> release;
        work.run([&started, released = release.get_future().share()] {
            started.set_value();
            released.wait();
        });
        started.get_future().wait();
        QVERIFY(!work.waitForDone(std::chrono::milliseconds(1))); // no job waits, the last runs
        release.set_value();
        QVERIFY(work.waitForDone(std::chrono::seconds(30)));
        QTRY_VERIFY_WITH_TIMEOUT(deliveredOn == QThread::currentThread(), 10'000);
        // Only the workers yield: the owner's thread keeps its priority.
        QCOMPARE(workerNiceness.load(), std::min(owner + BackgroundWork::lowPriorityNiceness, 19));
        QCOMPARE(::getpriority(PRIO_PROCESS, 0), owner);
    }

    // Each decoder's thumbnail, at most the requested size; none for a file that gives
    // no image, nor for a request cancelled.
    void thumbnailsArriveAtTheirSizeOnlyForRealImagesAndNotOnceCancelled() {
        const fs::path fixtures(KV_FIXTURES_DIR);
        ThumbnailProvider provider(1);
        QSignalSpy ready(&provider, &ThumbnailProvider::thumbnailReady);
        for (int i = 0; i < 40; ++i) {
            provider.request(QString::number(i), fixtures / "thumbnails/landscape.jpg", 96);
        }
        provider.cancel("39");
        provider.cancelAll();
        const std::map<QString, QSize> sizes{
            {"thumbnails/landscape.jpg", {96, 72}},
            {"thumbnails/portrait.heic", {72, 96}},
            {"thumbnails/clip.mov", {96, 54}},
            // Colour-filter-array data Qt cannot read: only its red SubIFD preview serves.
            {"thumbnails/preview.dng", {96, 72}},
            {"media/jpeg-original.jpg", {16, 16}}, // small, not enlarged
            {"media/not-an-image.jpg", {}},
            {"media/missing.heic", {}},
            {"media/missing.mov", {}}};
        for (const auto& [file, size] : sizes) {
            provider.request(file, fixtures / file.toStdString(), 96);
        }
        QVERIFY(provider.waitForDone(30'000));
        QTRY_COMPARE_WITH_TIMEOUT(ready.count(), 5, 30'000);
        QCoreApplication::processEvents();
        QCOMPARE(ready.count(), 5);
        for (const QList<QVariant>& arrived : ready) {
            const QImage image = arrived[1].value<QImage>();
            QCOMPARE(image.size(), sizes.at(arrived[0].toString()));
            const QColor centre = image.pixelColor(image.width() / 2, image.height() / 2);
            QVERIFY2(!arrived[0].toString().endsWith(".dng") ||
                         (centre.red() > 180 && centre.green() < 70 && centre.blue() < 70),
                     qPrintable(centre.name()));
        }
    }

    void everyReportFromTheBrowsersThreadReplacesTheListUntilStopped() {
        DeviceBrowser browser(nullptr, "_kestrelvane-test._tcp");
        QSignalSpy changed(&browser, &DeviceBrowser::devicesChanged);
        // The real DNS-SD browser, with no Avahi daemon to reach, finds nothing.
        const testing::ScopedEnvironment bus("DBUS_SYSTEM_BUS_ADDRESS",
                                             "unix:path=/nonexistent/kestrelvane-test-bus");
        browser.start();
        // Reported the way the DNS-SD browser does: from a thread of its own.
        const auto report = [&browser](const std::vector<DiscoveredService>& services) {
            std::thread([&] { browser.resultsChanged(services); }).join();
        };
        const std::vector<DiscoveredService> two{{"Anna", "local", "anna.local", {"::1"}, 9876},
                                                 {"Ben", "local", "ben.local", {"::1"}, 9877}};
        report(two);
        report({two[1]}); // replaces the list
        QTRY_VERIFY_WITH_TIMEOUT(browser.devices() == std::vector{two[1]}, 30'000);

        // A report still on its way when the browser stops is dropped.
        report({two[0]});
        browser.stop();
        QCoreApplication::processEvents();
        QVERIFY(browser.devices().empty());
        QCOMPARE(changed.count(), 3);
    }

    // What the first pass finds, kept by every pass after it without probing again.
    void eachPhoneShowsAsWhatItsReceiverAllows() {
        const std::tuple<bool, std::vector<std::string>, Kind> cases[] = {
            {false, {}, Kind::noDevice},
            {true, {"SHUT,0x12a8,none"}, Kind::appNotListening},
            {true, {"GONE,0x12a8,vanished"}, Kind::noDevice}, // unplugged while probed
            {true, {"FIRST,0x12a8,none", "SECOND,0x12a8,test"}, Kind::appNotListening},
            {true, {"PHONE,0x12a8,test"}, Kind::ready},
        };
        for (const auto& [daemon, phones, kind] : cases) {
            testing::SimulatorProcess sim(phones);
            UsbmuxdDiscovery discovery(
                daemon ? sim.address()
                       : UsbmuxdClient::SocketAddress{"/nonexistent/usbmuxd", {}, 0},
                testInterval);
            QSignalSpy passes(&discovery, &UsbmuxdDiscovery::passFinished);
            discovery.start();
            QVERIFY(QTest::qWaitFor([&] { return passes.count() >= 5; }, 30'000));
            QCOMPARE(discovery.state().kind, kind);
            QCOMPARE(discovery.state().deviceID, std::int64_t{kind == Kind::noDevice ? 0 : 1});
            QCOMPARE(discovery.state().fileDescriptor >= 0, kind == Kind::ready);
            discovery.stop();
            QVERIFY(discovery.state() == UsbmuxdDiscovery::State::noDevice());
            QCOMPARE(sim.tunnelsOpened(), kind == Kind::ready ? 1 : 0); // not probed again
        }
    }

    void dropsAreQueuedInPlannerOrderWithTheirTypeAndSizeAndNoFileTwice() {
        const auto paths =
            files({"z.heic", "pics/b.jpg", "pics/notes.txt", "pics/A.png", "pics/deep/c.mov"});
        QSignalSpy finished(&queue(), &TransferQueue::addFinished);
        queue().add({paths[0], folder_->path() / "pics"});
        queue().add({paths[1], paths[1]}); // arrive while the first drop is planned
        queue().add({folder_->path()});
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 3, 30'000);
        QVERIFY(addAndWait({paths[0]}));
        QCOMPARE(column(queue(), TransferQueue::NameRole),
                 QStringList({"z.heic", "A.png", "b.jpg", "c.mov"}));
        QCOMPARE(column(queue(), TransferQueue::MediaTypeRole),
                 QStringList({"photo", "photo", "photo", "video"}));
        QCOMPARE(queue().totalBytes(), 1000 + 1001 + 1003 + 1004);
        // A path that is gone shows why, once, and is never sent.
        const fs::path gone = folder_->path() / "gone.jpg";
        QVERIFY(addAndWait({gone}));
        QVERIFY(addAndWait({gone}));
        QCOMPARE(column(queue()).last(), "failed");
        QCOMPARE(queue().items().back().status.message, "No such file or directory");
        QCOMPARE(queue().items().size(), std::size_t{5});
        QCOMPARE(queue().unsentCount(), 4);
        QCOMPARE(queue().unsentURLs().size(), std::size_t{4});
        testing::writeFile(gone, testing::pattern(10, 1)); // there after all
        QVERIFY(addAndWait({gone}));
        QCOMPARE(column(queue()).last(), "queued");
        QCOMPARE(queue().unsentURLs().size(), std::size_t{5});
    }

    void clearingCancelsTheDropsStillBeingPlannedOrAppended() {
        for (int i = 0; i < 200; ++i) {
            files({"big/IMG_" + std::to_string(i) + ".jpg"});
        }
        const fs::path late = files({"late.jpg"})[0];
        QSignalSpy finished(&queue(), &TransferQueue::addFinished);

        // Cleared while the first drop is planned and the second waits for it.
        queue().add({folder_->path() / "big"});
        queue().add({folder_->path() / "big"});
        queue().clear();
        QVERIFY(!queue().isPlanning());
        // Drops are planned and appended in order: once this one is in, the others are over.
        QVERIFY(addAndWait({late}));
        QCOMPARE(column(queue(), TransferQueue::NameRole), QStringList{"late.jpg"});
        QCOMPARE(finished.count(), 1);

        // Cleared by the first row of a drop: the rest of it stays out, and
        // the drop is not reported as finished, also when that row was its last.
        for (const fs::path& dropped : {folder_->path() / "big", late}) {
            QMetaObject::Connection clearOnce;
            clearOnce = connect(&queue(), &QAbstractItemModel::rowsInserted, this, [&] {
                QObject::disconnect(clearOnce);
                queue().clear();
            });
            queue().add({dropped});
            QTRY_VERIFY_WITH_TIMEOUT(!queue().isPlanning(), 30'000);
            QCOMPARE(queue().rowCount(), 0);
            QCOMPARE(finished.count(), 1);
        }
        QVERIFY(addAndWait({late}));
        QCOMPARE(column(queue(), TransferQueue::NameRole), QStringList{"late.jpg"});
    }

    // A send that cannot start, one broken off, the send of what is left, then one cut
    // short by destroying the model.
    void aSendBrokenOffRequeuesWhatWasNotSavedAndTheNextSendsExactlyThat() {
        QVERIFY(
            addAndWait(files({"IMG_0.jpg", "IMG_1.jpg", "IMG_2.jpg", "IMG_3.jpg", "IMG_4.jpg"})));
        model_->startSend(
            queue().unsentURLs(),
            []() -> std::shared_ptr<KestrelvaneStream> { throw StreamError::refused("no route"); },
            [this] { ++failures_; });
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QCOMPARE(failures_, 1);
        QCOMPARE(column(queue()), QStringList(5, "queued"));
        QVERIFY(model_->statsLine().isEmpty());
        QCOMPARE(model_->breakLine(), "Stream refused: no route. Nothing was sent.");

        startSend(false);
        QCOMPARE(column(queue()), QStringList(5, "sending"));
        QVERIFY(model_->breakLine().isEmpty());
        QVERIFY(receiver_->waitForFiles(5));
        // Every byte is on the wire and nothing acknowledged: each row's bar is
        // full, and the footer counts the whole batch (5,010 bytes).
        QTRY_COMPARE_WITH_TIMEOUT(column(queue(), TransferQueue::ProgressRole), QStringList(5, "1"),
                                  30'000);
        QCOMPARE(model_->progressLine(), "0 of 0 MB");
        receiver_->sendAck({"IMG_0.jpg", Ack::Status::ok, {}});
        receiver_->sendAck({"IMG_1.jpg", Ack::Status::error, "no space"});
        receiver_->sendAck({"IMG_2.jpg", Ack::Status::error, {}});
        QTRY_COMPARE_WITH_TIMEOUT(column(queue()).count("sending"), 2, 30'000);
        QVERIFY(model_->statsLine().contains(" MB/s \u00B7 "));
        receiver_->closeConnection();
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QCOMPARE(column(queue()), QStringList({"saved", "failed", "failed", "queued", "queued"}));
        QCOMPARE(queue().items()[1].status.message, "no space");
        QCOMPARE(queue().items()[2].status.message, "failed");
        QCOMPARE(model_->bytesDone(), 1000); // only what was saved
        // Every file was written: acknowledgements ending early are no failure,
        // but the files they would have settled went back to the queue.
        QCOMPARE(failures_, 1);
        QCOMPARE(model_->breakLine(),
                 "The iPhone went away: 1 of 5 saved. Resume sends the other 4.");
        QVERIFY(model_->progressLine().isEmpty());

        startSend(true);
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QCOMPARE(receiver_->fileCount(), std::size_t{4}); // IMG_1.jpg … IMG_4.jpg
        QCOMPARE(column(queue()), QStringList(5, "saved"));
        QCOMPARE(model_->bytesDone(), 1001 + 1002 + 1003 + 1004);
        QVERIFY(model_->statsLine().startsWith("0 MB in "));
        queue().remove({queue().items()[0].id, "not-there"});
        QCOMPARE(queue().unsentCount(), 0); // a saved file removed is no longer counted saved
        // A namesake from another folder is settled by its own acknowledgement.
        QVERIFY(addAndWait(files({"sub/IMG_1.jpg"})));
        startSend(true);
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
        QCOMPARE(column(queue()), QStringList(5, "saved"));

        // Destroying the model must not hang: the connection is closed and the worker joined.
        QVERIFY(addAndWait(files({"IMG_5.jpg"})));
        startSend(false);
        QVERIFY(receiver_->waitForFiles(1));
        model_.reset();
        QVERIFY(receiver_->waitForEnd());
    }

    // The footer counts what the receiver has of the batch: a file it refuses
    // leaves the batch instead of counting as done.
    void aRefusedFileLeavesTheBatchTheFooterCounts() {
        QVERIFY(addAndWait(
            {testing::writeFile(folder_->path() / "VID_a.mov", testing::pattern(3 << 20, 1)),
             testing::writeFile(folder_->path() / "VID_b.mov", testing::pattern(2 << 20, 2))}));
        startSend(false);
        QVERIFY(receiver_->waitForFiles(2));
        QTRY_COMPARE_WITH_TIMEOUT(model_->progressLine(), "5 of 5 MB", 30'000);
        receiver_->sendAck({"VID_a.mov", Ack::Status::error, "no space"});
        QTRY_COMPARE_WITH_TIMEOUT(model_->progressLine(), "2 of 2 MB", 30'000);
        receiver_->sendAck({"VID_b.mov", Ack::Status::ok, {}});
        QTRY_VERIFY_WITH_TIMEOUT(!model_->isSending(), 30'000);
    }

    // Started, with a feed, one check at a time; the newest item of the feed is the latest.
    void aCheckReportsANewerReleaseThisOneAsCurrentOrWhyItFailed() {
        const QUrl twoReleases = servedFeed(
            "<item><title>Version 2.1</title><sparkle:version>210</sparkle:version>"
            "<sparkle:shortVersionString>2.1</sparkle:shortVersionString><sparkle:releaseNotesLink>"
            "https://example.org/notes/2.1.html</sparkle:releaseNotesLink>"
            "<enclosure url=\"https://example.org/2.1.tar.gz\" length=\"100\"/></item>"
            "<item><enclosure url=\"https://example.org/2.0.tar.gz\" "
            "sparkle:version=\"200\"/></item>");
        const std::tuple<QUrl, const char*, Check> cases[] = {
            {twoReleases, "200", Check::updateAvailable},
            {twoReleases, "30", Check::updateAvailable}, // by number, not as text
            {twoReleases, "210", Check::upToDate},
            {QUrl("file:///nonexistent/appcast.xml"), "1", Check::failed},
            {servedFeed("<item><title>x</title>"), "1", Check::failed},
            {servedFeed("<item><title>no version</title></item>"), "1", Check::failed},
        };
        for (const auto& [feed, current, kind] : cases) {
            AppcastUpdater updater(feed, current);
            QSignalSpy finished(&updater, &AppcastUpdater::checkFinished);
            QVERIFY(!updater.canCheckForUpdates());
            updater.start();
            QTRY_VERIFY_WITH_TIMEOUT(updater.canCheckForUpdates(), 30'000);
            updater.checkForUpdates();
            QVERIFY(!updater.canCheckForUpdates()); // a second check now is refused
            QVERIFY(finished.wait(30'000));
            QVERIFY(updater.canCheckForUpdates());
            const auto result = finished.first().first().value<AppcastUpdater::Result>();
            QCOMPARE(result.kind, kind);
            QCOMPARE(result.message.isEmpty(), kind != Check::failed);
            if (kind != Check::failed) {
                QCOMPARE(result.latest.shortVersion, "2.1");
                QCOMPARE(result.latest.releaseNotesUrl, QUrl("https://example.org/notes/2.1.html"));
                QCOMPARE(result.latest.downloadUrl, QUrl("https://example.org/2.1.tar.gz"));
            }
        }
    }

    void theFeedComesFromTheEnvironmentElseTheInstalledDesktopEntry() {
        // Not an INI file: commas and semicolons belong to the value, and only
        // the [Desktop Entry] group counts.
        testing::writeFile(folder_->path() / "applications" / "kestrelvane.desktop",
                           "# X-Kestrelvane-Appcast-URL=https://commented.example.org/\n"
                           "[Desktop Entry]\nType=Application\nName=Kestrelvane\n"
                           "X-Kestrelvane-Appcast-URL = https://updates.example.org/a,b;c/"
                           "appcast.xml?a=b&c=d&e=x\\sy\r\n"
                           "[Desktop Action Beta]\n"
                           "X-Kestrelvane-Appcast-URL=https://beta.example.org/\n");
        const testing::ScopedEnvironment dataHome("XDG_DATA_HOME", folder_->path().string());
        const testing::ScopedEnvironment noFeed("KESTRELVANE_APPCAST_URL", std::nullopt);
        QCOMPARE(AppcastUpdater::configuredFeed().toString(),
                 "https://updates.example.org/a,b;c/appcast.xml?a=b&c=d&e=x y");
        const testing::ScopedEnvironment feed("KESTRELVANE_APPCAST_URL",
                                              "http://127.0.0.1:1/feed.xml");
        QCOMPARE(AppcastUpdater::configuredFeed(), QUrl("http://127.0.0.1:1/feed.xml"));
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::SenderAppTest)
#include "SenderAppTest.moc"
