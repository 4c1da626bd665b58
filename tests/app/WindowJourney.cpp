// The window as a person uses it, on a real X server (run under Xvfb, inside
// the private network whose Avahi daemon lets the browser find receivers):
// choose a receiver the network announces, pair with it, send a folder and
// watch a file's bar move, lose the receiver mid-send, read the window's
// line about it, and resume. Screenshots of each step go to $KV_SCREENSHOTS
// (scripts/screenshots points it at docs/screenshots).
#include "KestrelvaneKit/intake/Checksum.h"
#include "Sender/ContentView.h"
#include "Sender/PairingDialog.h"
#include "support/CliProcess.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <QComboBox>
#include <QDir>
#include <QDropEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPushButton>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <optional>

namespace kestrelvane {

namespace fs = std::filesystem;

namespace {

void screenshot(QWidget& widget, const QString& name) {
    const QByteArray chosen = qgetenv("KV_SCREENSHOTS");
    const QString folder = chosen.isEmpty() ? QStringLiteral(KV_SCREENSHOT_DIR) : chosen;
    QDir().mkpath(folder);
    QVERIFY(widget.grab().save(folder + QStringLiteral("/%1.png").arg(name), "PNG"));
}

/// The share of the row named `name` that is on its way; -1 when it has no bar.
double progressOf(const TransferQueue& queue, const QString& name) {
    for (int row = 0; row < queue.rowCount(); ++row) {
        const QModelIndex index = queue.index(row);
        if (index.data(TransferQueue::NameRole).toString() == name) {
            const QVariant done = index.data(TransferQueue::ProgressRole);
            return done.isValid() ? done.toDouble() : -1.0;
        }
    }
    return -1.0;
}

} // namespace

class WindowJourney : public QObject {
    Q_OBJECT

private slots:
    void aReceiverFoundOnTheNetworkIsPairedSentToLostAndResumed() {
        // Two videos of 1 GiB each (TMPDIR is in memory: see CMakeLists.txt).
        const std::uint64_t video = std::uint64_t{KV_JOURNEY_VIDEO_MIB} << 20;
        const testing::TemporaryFolder laptop, in, deskHome, saved;
        const testing::ScopedEnvironment home("XDG_DATA_HOME", laptop.path().string());
        const testing::ScopedEnvironment cache("XDG_CACHE_HOME",
                                               (laptop.path() / "cache").string());
        // A first run: nothing remembered from an earlier one.
        const testing::ScopedEnvironment config("XDG_CONFIG_HOME",
                                                (laptop.path() / "config").string());
        testing::writeFile(in.path() / "IMG_0001.jpg", testing::pattern(300'000, 1));
        for (const char* name : {"VID_0002.mov", "VID_0003.mov"}) {
            std::ofstream(in.path() / name).close();
            fs::resize_file(in.path() / name, video);
        }
        const testing::ChildProcess::Environment asDesk{
            {"XDG_DATA_HOME", deskHome.path().string()}};
        const std::vector<std::string> receiving{"--allow-pairing", "--advertise", "Desk"};
        std::optional<testing::ReceiverProcess> receiver;
        receiver.emplace(saved.path(), receiving, asDesk, "127.0.0.1", std::vector<std::string>{},
                         false);

        ContentView view(UsbmuxdClient::SocketAddress{"/nonexistent/usbmuxd", {}, 0},
                         std::chrono::milliseconds(200));
        view.resize(760, 520);
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        auto* choice = view.findChild<QComboBox*>("destinationChoice");
        auto* button = view.findChild<QPushButton*>("primaryButton");
        QTRY_COMPARE_WITH_TIMEOUT(choice->count(), 2, 60'000);
        QCOMPARE(choice->itemText(1), "Desk · not paired");
        choice->setCurrentIndex(1);

        TransferQueue& queue = view.viewModel().queue();
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(QString::fromStdString(in.path().string()))});
        QDragEnterEvent enter({300, 200}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &enter);
        QDropEvent drop({300, 200}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &drop);
        QTRY_COMPARE_WITH_TIMEOUT(queue.rowCount(), 3, 30'000);
        QCOMPARE(button->text(), "Pair…");
        screenshot(view, QStringLiteral("journey-1-destination"));

        // Pairing: each screen's code typed on the other.
        QTest::mouseClick(button, Qt::LeftButton);
        PairingDialog* dialog = nullptr;
        QTRY_VERIFY_WITH_TIMEOUT((dialog = view.findChild<PairingDialog*>()) != nullptr, 10'000);
        auto* code = dialog->findChild<QLabel*>("pairingCode");
        QTRY_VERIFY_WITH_TIMEOUT(code->isVisible(), 30'000);
        const std::string deskCode = receiver->found("\n {4}([0-9]{3} [0-9]{3})\n");
        QCOMPARE(code->text().toStdString(), deskCode);
        screenshot(*dialog, QStringLiteral("journey-2-pairing"));
        receiver->type(code->text().toStdString());
        QTest::keyClicks(dialog->findChild<QLineEdit*>("pairingTyped"),
                         QString::fromStdString(deskCode));
        QTest::mouseClick(dialog->findChild<QPushButton*>("pairingConfirm"), Qt::LeftButton);
        auto* message = dialog->findChild<QLabel*>("pairingMessage");
        QTRY_VERIFY_WITH_TIMEOUT(message->text().startsWith("Paired with “Desk”"), 30'000);
        QTest::mouseClick(dialog->findChild<QPushButton*>("pairingClose"), Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(choice->currentText(), "Desk · paired", 10'000);

        // The send: the first video's bar seen twice on its way.
        QCOMPARE(button->text(), "Send 3 →");
        QTest::mouseClick(button, Qt::LeftButton);
        // Each picture is taken with the receiver stopped (SIGSTOP), so that
        // the bar holds still however fast or slow this machine is.
        const pid_t desk = receiver->process().pid();
        const auto holdStill = [&] {
            ::kill(desk, SIGSTOP);
            double seen = -2;
            // Still once the socket's buffers are full and a tenth of a second
            // (a progress tick) has shown nothing new.
            for (int tick = 0; tick < 100 && seen != progressOf(queue, "VID_0002.mov"); ++tick) {
                seen = progressOf(queue, "VID_0002.mov");
                QTest::qWait(300);
            }
            return seen;
        };
        QTRY_VERIFY_WITH_TIMEOUT(progressOf(queue, "VID_0002.mov") > 0.05, 60'000);
        const double first = holdStill();
        screenshot(view, QStringLiteral("journey-3-progress"));
        ::kill(desk, SIGCONT);
        QTRY_VERIFY_WITH_TIMEOUT(progressOf(queue, "VID_0002.mov") > first + 0.2, 60'000);
        const double second = holdStill();
        QVERIFY(second > first && second < 1);
        screenshot(view, QStringLiteral("journey-4-progress"));
        ::kill(desk, SIGCONT);
        QVERIFY(view.findChild<QLabel*>("progressLine")
                    ->text()
                    .contains(QStringLiteral(" of %1 MB").arg(2 * KV_JOURNEY_VIDEO_MIB)));

        // The receiver is killed halfway through the second video.
        QTRY_VERIFY_WITH_TIMEOUT(progressOf(queue, "VID_0003.mov") > 0.4, 60'000);
        ::kill(receiver->process().pid(), SIGKILL);
        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 60'000);
        auto* broke = view.findChild<QLabel*>("breakLine");
        QCOMPARE(broke->text(), "“Desk” went away: 2 of 3 saved. Resume sends the other 1.");
        QCOMPARE(button->text(), "Resume 1 →");
        screenshot(view, QStringLiteral("journey-5-broken"));

        // Started again (the same device, announced anew), it is sent the rest.
        receiver.reset();
        receiver.emplace(saved.path(), receiving, asDesk, "127.0.0.1", std::vector<std::string>{},
                         false);
        const auto announcedAgain = [&] {
            const auto& found = view.browser().devices();
            return std::any_of(found.begin(), found.end(), [&](const DiscoveredService& service) {
                return service.name == "Desk" && service.port == receiver->port();
            });
        };
        QTRY_VERIFY_WITH_TIMEOUT(announcedAgain(), 60'000);
        QCOMPARE(choice->currentText(), "Desk · paired");
        QVERIFY(button->isEnabled());
        QTest::mouseClick(button, Qt::LeftButton);
        QVERIFY(!broke->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(!view.viewModel().isSending(), 60'000);
        QVERIFY2(broke->text().isEmpty(), qPrintable(broke->text()));
        QCOMPARE(button->text(), "Sent ✓");
        for (const char* name : {"IMG_0001.jpg", "VID_0002.mov", "VID_0003.mov"}) {
            QCOMPARE(Checksum::sha256HexOfFile(saved.path() / name),
                     Checksum::sha256HexOfFile(in.path() / name));
        }
        screenshot(view, QStringLiteral("journey-6-sent"));
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::WindowJourney)
#include "WindowJourney.moc"
