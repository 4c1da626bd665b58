#include "Sender/ContentView.h"

#include "KestrelvaneKit/intake/QueuePlanner.h"
#include "MediaFiles.h"
#include "Sender/KestrelvaneColors.h"
#include "Sender/QueueRowDelegate.h"
#include "support/SimulatorProcess.h"
#include "support/TemporaryFolder.h"

#include <QAbstractItemView>
#include <QAction>
#include <QDialogButtonBox>
#include <QDir>
#include <QDropEvent>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <algorithm>

namespace kestrelvane {

namespace fs = std::filesystem;
using Kind = UsbmuxdDiscovery::State::Kind;
using Status = TransferQueue::Status;
using Simulator = testing::SimulatorProcess;
using testing::writeFile;
using testing::writePhotos;

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

template <typename T> T* child(QWidget& view, const char* name) {
    auto* found = view.findChild<T*>(QString::fromLatin1(name));
    if (found == nullptr) {
        qFatal("no widget named %s", name);
    }
    return found;
}

} // namespace

class ContentViewTest : public QObject {
    Q_OBJECT

    std::unique_ptr<testing::TemporaryFolder> folder_;

    /// A window whose discovery talks to `sim` (or to no daemon at all).
    std::unique_ptr<ContentView> makeView(const Simulator* sim = nullptr) {
        const UsbmuxdClient::SocketAddress address =
            sim != nullptr
                ? sim->address()
                : UsbmuxdClient::SocketAddress{(folder_->path() / "absent").string(), {}, 0};
        auto view = std::make_unique<ContentView>(address, testInterval);
        view->resize(640, 480);
        return view;
    }

    static void addAndWait(ContentView& view, const std::vector<fs::path>& urls) {
        QSignalSpy finished(&view.viewModel().queue(), &TransferQueue::addFinished);
        view.viewModel().addURLs(urls);
        QVERIFY(finished.wait(30'000));
    }

    /// Shows `view` with `photos` queued and waits until its phone is ready for them.
    static void showReadyToSend(ContentView& view, const std::vector<fs::path>& photos) {
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        addAndWait(view, photos);
        QTRY_VERIFY_WITH_TIMEOUT(child<QPushButton>(view, "primaryButton")->isEnabled(), 30'000);
    }

    static QStringList names(ContentView& view) {
        QStringList list;
        for (const auto& item : view.viewModel().queue().items()) {
            list << item.name;
        }
        return list;
    }

    static void drop(ContentView& view, const std::vector<fs::path>& paths) {
        QMimeData data;
        QList<QUrl> urls;
        for (const auto& path : paths) {
            urls << QUrl::fromLocalFile(QString::fromStdString(path.string()));
        }
        data.setUrls(urls);
        const QPointF at(view.width() / 2.0, view.height() / 2.0);
        QDragEnterEvent enter(at.toPoint(), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &enter);
        QVERIFY(enter.isAccepted());
        QSignalSpy finished(&view.viewModel().queue(), &TransferQueue::addFinished);
        QDropEvent dropped(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &dropped);
        QVERIFY(dropped.isAccepted());
        QVERIFY(finished.wait(30'000));
    }

private slots:
    void init() { folder_ = std::make_unique<testing::TemporaryFolder>(); }
    void cleanup() { folder_.reset(); }

    void paletteColoursHaveTheirExactEightBitValues() {
        namespace colours = KestrelvaneColors;
        QCOMPARE(colours::bg(), QColor(0xE6, 0xEB, 0xE1));
        QCOMPARE(colours::bgDeep(), QColor(0x0D, 0x15, 0x0F));
        QCOMPARE(colours::ink(), QColor(0x14, 0x20, 0x1A));
        QCOMPARE(colours::muted(), QColor(0x4F, 0x5D, 0x4B));
        QCOMPARE(colours::accent(), QColor(0xC9, 0x78, 0x5A));
        QCOMPARE(colours::ok(), QColor(0x6A, 0x8A, 0x5A));
        QCOMPARE(colours::accent().alphaF(), 1.0F);
        QCOMPARE(&colours::ink(), &colours::ink());
    }

    void anEmptyQueueShowsThePromptAndTheShowingWindowWatchesForPhones() {
        auto view = makeView();
        QVERIFY(!view->discovery().isRunning());
        view->show();
        QVERIFY(QTest::qWaitForWindowExposed(view.get()));
        QVERIFY(view->discovery().isRunning());
        QVERIFY(view->browser().isBrowsing());
        QVERIFY(view->minimumSize() == QSize(560, 460));

        QVERIFY(child<QWidget>(*view, "emptyState")->isVisible());
        QCOMPARE(child<QLabel>(*view, "emptyTitle")->text(), "No photos selected");
        QCOMPARE(child<QLabel>(*view, "emptyHint")->text(),
                 "Drag photos in · Choose a folder " +
                     QKeySequence(QKeySequence::Open).toString(QKeySequence::NativeText));
        QCOMPARE(child<QLineEdit>(*view, "albumField")->placeholderText(), "＋ Album (optional)");
        QVERIFY(child<QLineEdit>(*view, "albumField")->maximumWidth() <= 220);
        QCOMPARE(child<QLabel>(*view, "deviceStatus")->text(), "Plug in your iPhone");
        QVERIFY(!child<QPushButton>(*view, "clearButton")->isEnabled());
        QVERIFY(!child<QLabel>(*view, "statsLine")->isVisible());
        saveScreenshot(*view, QStringLiteral("window-empty"));

        view->hide();
        QVERIFY(!view->discovery().isRunning());
        QVERIFY(!view->browser().isBrowsing());
    }

    void theSendButtonCountsUnsentFilesAndNeedsAReadyPhone() {
        Simulator sim({"READY,0x12a8,folder=" + (folder_->path() / "phone").string()});
        auto view = makeView(&sim);
        view->show();
        auto* button = child<QPushButton>(*view, "primaryButton");
        addAndWait(*view, writePhotos(folder_->path() / "in", 3));
        QTRY_COMPARE_WITH_TIMEOUT(view->discovery().state().kind, Kind::ready, 30'000);
        QCOMPARE(child<QLabel>(*view, "deviceStatus")->text(), "● iPhone ready");
        QCOMPARE(button->text(), "Send 3 →");
        QVERIFY(button->isEnabled());

        TransferQueue& queue = view->viewModel().queue();
        queue.setStatus(Status::saved(), QStringLiteral("IMG_0.jpg"));
        QCOMPARE(button->text(), "Resume 2 →");
        QVERIFY(button->isEnabled());
        queue.setStatus(Status::failed(QStringLiteral("disk full")), QStringLiteral("IMG_1.jpg"));
        QCOMPARE(button->text(), "Resume 2 →");

        queue.setStatus(Status::saved(), QStringLiteral("IMG_1.jpg"));
        queue.setStatus(Status::saved(), QStringLiteral("IMG_2.jpg"));
        QCOMPARE(button->text(), "Sent ✓");
        QVERIFY(!button->isEnabled());
    }

    void withoutAListeningPhoneTheSendButtonIsDisabled_data() {
        QTest::addColumn<QString>("phone");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("text");
        QTest::newRow("no phone") << QString() << static_cast<int>(Kind::noDevice)
                                  << "Plug in your iPhone";
        QTest::newRow("receiver not open")
            << "REFUSER,0x12a8,none" << static_cast<int>(Kind::appNotListening)
            << "Open Kestrelvane on your iPhone";
    }
    void withoutAListeningPhoneTheSendButtonIsDisabled() {
        QFETCH(QString, phone);
        QFETCH(int, kind);
        QFETCH(QString, text);
        std::vector<std::string> phones;
        if (!phone.isEmpty()) {
            phones.push_back(phone.toStdString());
        }
        Simulator sim(phones);
        auto view = makeView(&sim);
        QSignalSpy passes(&view->discovery(), &UsbmuxdDiscovery::passFinished);
        view->show();
        addAndWait(*view, writePhotos(folder_->path(), 3));
        QTRY_VERIFY_WITH_TIMEOUT(passes.count() >= 2, 30'000);
        QCOMPARE(static_cast<int>(view->discovery().state().kind), kind);
        QCOMPARE(child<QLabel>(*view, "deviceStatus")->text(), text);
        auto* button = child<QPushButton>(*view, "primaryButton");
        QCOMPARE(button->text(), "Send 3 →");
        QVERIFY(!button->isEnabled());
    }

    void aDropAddsFilesAndFoldersInPlannerOrderAndNoFileTwice() {
        auto view = makeView();
        view->show();
        const fs::path base = folder_->path();
        const fs::path first = writeFile(base / "b.jpg", 10);
        const fs::path second = writeFile(base / "a.mov", 10);
        writeFile(base / "album" / "Z.png", 10);
        writeFile(base / "album" / "c.heic", 10);
        writeFile(base / "album" / "notes.txt", 10);
        const std::vector<fs::path> dropped{first, second, base / "album"};

        drop(*view, dropped);
        QStringList expected;
        for (const auto& path : QueuePlanner::plan(dropped, {})) {
            expected << QString::fromStdString(path.filename().string());
        }
        QCOMPARE(expected.size(), 4);
        QCOMPARE(names(*view), expected);
        QVERIFY(child<QListView>(*view, "queueList")->isVisible());

        drop(*view, {first});
        QCOMPARE(names(*view), expected);
    }

    void deleteRemovesEverySelectedRowAndClearsTheSelection() {
        auto view = makeView();
        view->show();
        addAndWait(*view, writePhotos(folder_->path(), 4));
        auto* list = child<QListView>(*view, "queueList");
        list->setFocus();
        list->selectionModel()->select(list->model()->index(1, 0), QItemSelectionModel::Select);
        list->selectionModel()->select(list->model()->index(3, 0), QItemSelectionModel::Select);
        QCOMPARE(view->selection().size(), 2);
        QVERIFY(view->deleteAction()->isEnabled());

        QTest::keyClick(list, Qt::Key_Delete);
        QCOMPARE(names(*view), QStringList({"IMG_0.jpg", "IMG_2.jpg"}));
        QVERIFY(view->selection().isEmpty());
        QVERIFY(!view->deleteAction()->isEnabled());

        // The Edit menu's Delete is the same command.
        list->selectionModel()->select(list->model()->index(0, 0), QItemSelectionModel::Select);
        view->deleteAction()->trigger();
        QCOMPARE(names(*view), QStringList({"IMG_2.jpg"}));

        // Delete typed into the album field edits the text and keeps the queue.
        auto* album = child<QLineEdit>(*view, "albumField");
        album->setText(QStringLiteral("Trip"));
        album->setFocus();
        album->setCursorPosition(0);
        QTest::keyClick(album, Qt::Key_Delete);
        QCOMPARE(album->text(), "rip");
        QCOMPARE(view->viewModel().albumName(), "rip");
        QCOMPARE(names(*view), QStringList({"IMG_2.jpg"}));
    }

    void rowsShowWholeMebibytesAndTheirStatus() {
        auto view = makeView();
        addAndWait(*view, {writeFile(folder_->path() / "big.jpg", 1'572'864),
                           writeFile(folder_->path() / "small.jpg", 400'000)});
        QAbstractItemModel& model = view->viewModel().queue();
        QCOMPARE(QueueRowDelegate::sizeText(
                     model.index(0, 0).data(TransferQueue::SizeRole).toLongLong()),
                 "2 MB");
        QCOMPARE(QueueRowDelegate::sizeText(
                     model.index(1, 0).data(TransferQueue::SizeRole).toLongLong()),
                 "0 MB");

        using StatusKind = Status::Kind;
        QCOMPARE(QueueRowDelegate::statusText(StatusKind::queued), "queued");
        QCOMPARE(QueueRowDelegate::statusText(StatusKind::sending), "sending…");
        QCOMPARE(QueueRowDelegate::statusText(StatusKind::saved), "saved ✓");
        QCOMPARE(QueueRowDelegate::statusText(StatusKind::failed), "failed ⚠");
        QCOMPARE(QueueRowDelegate::statusColor(StatusKind::saved), KestrelvaneColors::ok());
        QCOMPARE(QueueRowDelegate::statusColor(StatusKind::failed), KestrelvaneColors::accent());

        view->viewModel().queue().setStatus(Status::failed(QStringLiteral("checksum mismatch")),
                                            QStringLiteral("small.jpg"));
        QCOMPARE(QueueRowDelegate::statusHelp(model.index(1, 0)), "checksum mismatch");
        QVERIFY(QueueRowDelegate::statusHelp(model.index(0, 0)).isEmpty());
    }

    void theReverseDirectionOnlyShowsItsNote() {
        auto view = makeView();
        view->show();
        QVERIFY(QTest::qWaitForWindowExposed(view.get()));
        addAndWait(*view, writePhotos(folder_->path(), 1));
        auto* forward = child<QPushButton>(*view, "forwardSegment");
        QVERIFY(!view->isReverseNoteShown());

        QTest::mouseClick(child<QPushButton>(*view, "reverseSegment"), Qt::LeftButton);
        QVERIFY(view->isReverseNoteShown());
        QCOMPARE(child<QLabel>(*view, "reverseNoteText")->text(), "iPhone → Mac coming soon");
        QVERIFY(forward->isChecked());
        QCOMPARE(names(*view), QStringList({"IMG_0.jpg"}));
        QCOMPARE(child<QPushButton>(*view, "primaryButton")->text(), "Send 1 →");

        QTest::mouseClick(forward, Qt::LeftButton); // the selected segment stays selected
        QVERIFY(forward->isChecked());
    }

    void addShortcutAndChooseOpenTheChooserAndAddWhatWasChosen() {
        auto view = makeView();
        view->show();
        QVERIFY(QTest::qWaitForWindowExposed(view.get()));
        const fs::path photo = writeFile(folder_->path() / "one.jpg", 10);
        writeFile(folder_->path() / "trip" / "two.mov", 10);
        int opened = 0;
        std::optional<std::vector<fs::path>> answer; // cancelled first
        view->setChooser([&](QWidget*) {
            ++opened;
            return answer;
        });

        QTest::mouseClick(child<QPushButton>(*view, "chooseButton"), Qt::LeftButton);
        QCOMPARE(opened, 1);
        QVERIFY(view->viewModel().queue().items().empty());

        answer = std::vector<fs::path>{photo, folder_->path() / "trip"};
        QSignalSpy finished(&view->viewModel().queue(), &TransferQueue::addFinished);
        QTest::keySequence(view.get(), QKeySequence::Open);
        QCOMPARE(opened, 2);
        QVERIFY(finished.wait(30'000));
        QCOMPARE(names(*view), QStringList({"one.jpg", "two.mov"}));

        QTest::mouseClick(child<QPushButton>(*view, "addButton"), Qt::LeftButton);
        QCOMPARE(opened, 3);
    }

    void theChooserDialogTakesFilesAndFoldersSelectedTogether() {
        const fs::path photo = writeFile(folder_->path() / "one.jpg", 10);
        writeFile(folder_->path() / "trip" / "two.mov", 10);
        writeFile(folder_->path() / "notes.txt", 10); // not offered
        const QString previous = QDir::currentPath();
        QDir::setCurrent(QString::fromStdString(folder_->path().string()));
        int offered = -1;
        QTimer pick;
        pick.setInterval(10);
        connect(&pick, &QTimer::timeout, &pick, [&] {
            auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
            auto* view = dialog != nullptr ? dialog->findChild<QListView*>("listView") : nullptr;
            if (view == nullptr || view->model()->rowCount(view->rootIndex()) < 2) {
                return; // the folder is still being read
            }
            pick.stop();
            offered = view->model()->rowCount(view->rootIndex());
            view->selectAll();
            QTest::mouseClick(
                dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Open),
                Qt::LeftButton);
        });
        pick.start();
        QTimer::singleShot(30'000, [] {
            if (auto* dialog = QApplication::activeModalWidget()) {
                dialog->close(); // never left waiting
            }
        });
        const auto chosen = ContentView::chooseWithDialog(nullptr);
        QDir::setCurrent(previous);
        QCOMPARE(offered, 2);
        QVERIFY(chosen.has_value());
        std::vector<fs::path> sorted = *chosen;
        std::sort(sorted.begin(), sorted.end());
        QCOMPARE(sorted, (std::vector<fs::path>{photo, folder_->path() / "trip"}));
    }

    void sendingThroughTheSimulatedPhoneSavesEveryRowAndFindsThePhoneAgain() {
        const fs::path phoneFolder = folder_->path() / "phone";
        fs::create_directories(phoneFolder);
        Simulator sim({"READY,0x12a8,folder=" + phoneFolder.string()});
        auto view = makeView(&sim);
        const std::vector<fs::path> photos = writePhotos(folder_->path() / "in", 3);
        child<QLineEdit>(*view, "albumField")->setText(QStringLiteral("Trip"));
        showReadyToSend(*view, photos);
        auto* button = child<QPushButton>(*view, "primaryButton");

        QTest::mouseClick(button, Qt::LeftButton);
        // The hand-over is synchronous: the window shows the send before any reply.
        QVERIFY(view->viewModel().isSending());
        QVERIFY(view->discovery().paused());
        QVERIFY(!child<QLineEdit>(*view, "albumField")->isEnabled());
        QVERIFY(!child<QPushButton>(*view, "clearButton")->isEnabled());
        QVERIFY(!button->isEnabled());
        QCOMPARE(child<QLabel>(*view, "deviceStatus")->text(), "Open Kestrelvane on your iPhone");
        for (const auto& item : view->viewModel().queue().items()) {
            QCOMPARE(item.status.kind, Status::Kind::sending);
        }
        saveScreenshot(*view, QStringLiteral("window-sending"));

        QTRY_VERIFY_WITH_TIMEOUT(!view->viewModel().isSending(), 30'000);
        for (const auto& item : view->viewModel().queue().items()) {
            QCOMPARE(item.status.kind, Status::Kind::saved);
        }
        for (const fs::path& photo : photos) {
            QCOMPARE(testing::contentsOf(phoneFolder / "Trip" / photo.filename()),
                     testing::contentsOf(photo));
        }
        QVERIFY(child<QLabel>(*view, "statsLine")->isVisible());
        QVERIFY(child<QLabel>(*view, "statsLine")->text().contains(QStringLiteral(" MB in ")));
        QVERIFY(child<QLineEdit>(*view, "albumField")->isEnabled());
        QVERIFY(child<QPushButton>(*view, "clearButton")->isEnabled());
        QCOMPARE(button->text(), "Sent ✓");
        QVERIFY(!view->discovery().paused());
        QTRY_COMPARE_WITH_TIMEOUT(view->discovery().state().kind, Kind::ready, 30'000);
        QCOMPARE(child<QLabel>(*view, "deviceStatus")->text(), "● iPhone ready");
        saveScreenshot(*view, QStringLiteral("window-sent"));

        QTest::mouseClick(child<QPushButton>(*view, "clearButton"), Qt::LeftButton);
        QVERIFY(view->viewModel().queue().items().empty());
        QVERIFY(child<QWidget>(*view, "emptyState")->isVisible());
    }

    void aSendThatBreaksOffPutsItsFilesBackInTheQueueForTheNextTry() {
        // The phone's port echoes every frame: the first reply is no acknowledgement.
        Simulator sim({"ECHO,0x12a8,echo"});
        auto view = makeView(&sim);
        showReadyToSend(*view, writePhotos(folder_->path(), 3));
        auto* button = child<QPushButton>(*view, "primaryButton");
        QTest::mouseClick(button, Qt::LeftButton);
        QVERIFY(view->viewModel().isSending());

        QTRY_VERIFY_WITH_TIMEOUT(!view->viewModel().isSending(), 30'000);
        for (const auto& item : view->viewModel().queue().items()) {
            QCOMPARE(item.status.kind, Status::Kind::queued);
        }
        QCOMPARE(button->text(), "Send 3 →");
        QVERIFY(!child<QLabel>(*view, "statsLine")->isVisible()); // nothing was saved
        QVERIFY(child<QLineEdit>(*view, "albumField")->isEnabled());
        QVERIFY(child<QPushButton>(*view, "clearButton")->isEnabled());
        QVERIFY(!view->discovery().paused());
        // The phone is found again on a fresh tunnel, and the files can be sent again.
        QTRY_VERIFY_WITH_TIMEOUT(button->isEnabled(), 30'000);
        QCOMPARE(child<QLabel>(*view, "deviceStatus")->text(), "● iPhone ready");
    }

    void theToolbarShowsEveryDeviceStatusWholeFromTheMinimumWidthOn() {
        auto view = makeView();
        view->show();
        QVERIFY(QTest::qWaitForWindowExposed(view.get()));
        auto* status = child<QLabel>(*view, "deviceStatus");
        auto* toolbar = child<QWidget>(*view, "toolbar");
        for (const int width : {560, 640}) {
            view->resize(width, 460);
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
            saveScreenshot(*view, QStringLiteral("window-%1-wide").arg(width));
        }
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::ContentViewTest)
#include "ContentViewTest.moc"
