#include "Sender/KestrelvaneSenderApp.h"

#include "AppcastServer.h"
#include "Sender/ContentView.h"

#include <QAction>
#include <QApplication>
#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QSignalSpy>
#include <QTest>

#include <csignal>

namespace kestrelvane {

using testing::AppcastServer;

namespace {

QAction* menuAction(QMainWindow& window, const QString& text) {
    for (QAction* menu : window.menuBar()->actions()) {
        for (QAction* action : menu->menu()->actions()) {
            if (action->text() == text) {
                return action;
            }
        }
    }
    return nullptr;
}

} // namespace

class KestrelvaneSenderAppTest : public QObject {
    Q_OBJECT

private slots:
    void startingIgnoresBrokenPipesAndOpensOneWindowWithTheContent() {
        std::signal(SIGPIPE, SIG_DFL);
        KestrelvaneSenderApp app{QUrl()};
        struct sigaction current {};
        QCOMPARE(::sigaction(SIGPIPE, nullptr, &current), 0);
        QVERIFY(current.sa_handler == SIG_IGN);

        app.show();
        QVERIFY(QTest::qWaitForWindowExposed(&app.window()));
        QCOMPARE(app.window().centralWidget(), &app.content());
        QCOMPARE(app.window().windowTitle(), "Kestrelvane");
        app.window().resize(100, 100); // never smaller than the content allows
        QVERIFY(app.window().width() >= 560);
        QVERIFY(app.window().height() >= 460);
        QCOMPARE(menuAction(app.window(), "Delete"), app.content().deleteAction());
    }

    void withoutAFeedTheUpdateItemStaysDisabled() {
        KestrelvaneSenderApp app{QUrl()};
        QAction* item = menuAction(app.window(), QStringLiteral("Check for Updates…"));
        QVERIFY(item != nullptr);
        QCoreApplication::processEvents(); // the updater has started up now
        QVERIFY(!item->isEnabled());
    }

    void theUpdateItemIsEnabledOnceTheUpdaterCanCheckAndReportsANewerVersion() {
        AppcastServer server(AppcastServer::appcast(
            "\n"
            "<item><title>Version 9.0</title>\n"
            "  <sparkle:version>9.0</sparkle:version>\n"
            "  "
            "<sparkle:releaseNotesLink>https://example.org/notes/9.0.html</"
            "sparkle:releaseNotesLink>\n"
            "  <enclosure url=\"https://example.org/Kestrelvane-9.0.tar.gz\"/>\n"
            "</item>"));
        KestrelvaneSenderApp app{server.url()};
        QAction* item = menuAction(app.window(), QStringLiteral("Check for Updates…"));
        QCOMPARE(item, app.checkForUpdatesAction());
        QVERIFY(!item->isEnabled());
        QTRY_VERIFY_WITH_TIMEOUT(item->isEnabled(), 30'000);

        QSignalSpy finished(&app.updater(), &AppcastUpdater::checkFinished);
        item->trigger();
        QVERIFY(!item->isEnabled());
        QVERIFY(finished.wait(30'000));
        QVERIFY(item->isEnabled());
        const auto result = finished.first().first().value<AppcastUpdater::Result>();
        QCOMPARE(result.kind, AppcastUpdater::Result::Kind::updateAvailable);
        QCOMPARE(result.latest.shortVersion, "9.0");

        auto* box = app.window().findChild<QMessageBox*>(QStringLiteral("updateResult"));
        QVERIFY(box != nullptr);
        QCOMPARE(box->text(), "A new version of Kestrelvane is available!");
        QVERIFY(
            box->informativeText().contains(QStringLiteral("Kestrelvane 9.0 is now available")));
        QVERIFY(
            box->informativeText().contains(QStringLiteral("https://example.org/notes/9.0.html")));
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::KestrelvaneSenderAppTest)
#include "KestrelvaneSenderAppTest.moc"
