#include "Sender/AppcastUpdater.h"

#include "AppcastServer.h"
#include "support/TemporaryFolder.h"

#include <QSignalSpy>
#include <QTest>

#include <filesystem>
#include <fstream>

namespace kestrelvane {

namespace fs = std::filesystem;
using Kind = AppcastUpdater::Result::Kind;
using testing::AppcastServer;

namespace {

const QByteArray twoReleases = AppcastServer::appcast(
    "\n"
    "<item><title>Version 2.1</title>\n"
    "  <sparkle:version>210</sparkle:version>\n"
    "  <sparkle:shortVersionString>2.1</sparkle:shortVersionString>\n"
    "  <sparkle:releaseNotesLink>https://example.org/notes/2.1.html</sparkle:releaseNotesLink>\n"
    "  <enclosure url=\"https://example.org/Kestrelvane-2.1.tar.gz\" length=\"100\" "
    "type=\"application/octet-stream\"/>\n"
    "</item>\n"
    "<item><title>Version 2.0</title>\n"
    "  <enclosure url=\"https://example.org/Kestrelvane-2.0.tar.gz\" sparkle:version=\"200\" "
    "sparkle:shortVersionString=\"2.0\"/>\n"
    "</item>");

AppcastUpdater::Result checkOnce(AppcastUpdater& updater) {
    QSignalSpy finished(&updater, &AppcastUpdater::checkFinished);
    updater.checkForUpdates();
    if (!finished.wait(30'000)) {
        return {Kind::failed, {}, QStringLiteral("no answer")};
    }
    return finished.first().first().value<AppcastUpdater::Result>();
}

} // namespace

class AppcastUpdaterTest : public QObject {
    Q_OBJECT

private slots:
    void versionsCompareByTheirNumbersAndPreReleasesComeFirst() {
        QVERIFY(AppcastUpdater::compareVersions("1.10", "1.9") > 0);
        QVERIFY(AppcastUpdater::compareVersions("1.0.1", "1.0") > 0);
        QVERIFY(AppcastUpdater::compareVersions("1.0", "1.0.0") < 0);
        QCOMPARE(AppcastUpdater::compareVersions("2.0", "2.0"), 0);
        QVERIFY(AppcastUpdater::compareVersions("1.0b1", "1.0") < 0);
        QVERIFY(AppcastUpdater::compareVersions("1.0b2", "1.0b1") > 0);
        QVERIFY(AppcastUpdater::compareVersions("1.0.1", "1.0b1") > 0);
        QVERIFY(AppcastUpdater::compareVersions("210", "0.1.0") > 0);
    }

    void theNewestItemOfAnAppcastIsTheLatestRelease() {
        const auto latest = AppcastUpdater::latestRelease(twoReleases);
        QVERIFY(latest.has_value());
        QCOMPARE(latest->version, "210");
        QCOMPARE(latest->shortVersion, "2.1");
        QCOMPARE(latest->title, "Version 2.1");
        QCOMPARE(latest->releaseNotesUrl, QUrl("https://example.org/notes/2.1.html"));
        QCOMPARE(latest->downloadUrl, QUrl("https://example.org/Kestrelvane-2.1.tar.gz"));

        // Versions given only on the enclosure count too.
        const auto onEnclosure = AppcastUpdater::latestRelease(
            AppcastServer::appcast("<item><enclosure url=\"https://example.org/k.tar.gz\" "
                                   "sparkle:version=\"3\"/></item>"));
        QVERIFY(onEnclosure.has_value());
        QCOMPARE(onEnclosure->version, "3");
        QCOMPARE(onEnclosure->shortVersion, "3");
    }

    void malformedOrEmptyFeedsHaveNoRelease() {
        QVERIFY(!AppcastUpdater::latestRelease("not xml at all <<<").has_value());
        QVERIFY(!AppcastUpdater::latestRelease(AppcastServer::appcast("<item><title>x</title>")));
        QVERIFY(!AppcastUpdater::latestRelease(
            AppcastServer::appcast("<item><title>no version</title></item>")));
        QVERIFY(!AppcastUpdater::latestRelease(AppcastServer::appcast("")).has_value());
    }

    void itCanCheckOnlyOnceStartedWithAFeedAndNotDuringACheck() {
        AppcastServer server(twoReleases);
        AppcastUpdater updater(server.url(), QStringLiteral("0.1.0"));
        QVERIFY(!updater.canCheckForUpdates());
        updater.checkForUpdates(); // not started: nothing is fetched
        updater.start();
        QTRY_VERIFY_WITH_TIMEOUT(updater.canCheckForUpdates(), 30'000);
        QCOMPARE(server.requests(), 0);

        QSignalSpy finished(&updater, &AppcastUpdater::checkFinished);
        updater.checkForUpdates();
        QVERIFY(!updater.canCheckForUpdates());
        updater.checkForUpdates(); // a second check while one runs is refused
        QVERIFY(finished.wait(30'000));
        QVERIFY(updater.canCheckForUpdates());
        QCOMPARE(server.requests(), 1);
        QCOMPARE(finished.count(), 1);

        AppcastUpdater unconfigured(QUrl(), QStringLiteral("0.1.0"));
        unconfigured.start();
        QSignalSpy changes(&unconfigured, &AppcastUpdater::canCheckForUpdatesChanged);
        QTRY_VERIFY_WITH_TIMEOUT(updater.canCheckForUpdates(), 30'000);
        QCoreApplication::processEvents();
        QVERIFY(!unconfigured.canCheckForUpdates());
        QCOMPARE(changes.count(), 0);
    }

    void aCheckReportsANewerVersionOrThatThisOneIsCurrent() {
        AppcastServer server(twoReleases);
        AppcastUpdater older(server.url(), QStringLiteral("200"));
        older.start();
        QTRY_VERIFY_WITH_TIMEOUT(older.canCheckForUpdates(), 30'000);
        const AppcastUpdater::Result newer = checkOnce(older);
        QCOMPARE(newer.kind, Kind::updateAvailable);
        QCOMPARE(newer.latest.shortVersion, "2.1");
        QCOMPARE(newer.latest.releaseNotesUrl, QUrl("https://example.org/notes/2.1.html"));

        AppcastUpdater current(server.url(), QStringLiteral("210"));
        current.start();
        QTRY_VERIFY_WITH_TIMEOUT(current.canCheckForUpdates(), 30'000);
        QCOMPARE(checkOnce(current).kind, Kind::upToDate);
    }

    void theFeedComesFromTheEnvironmentElseTheInstalledDesktopEntry() {
        testing::TemporaryFolder data;
        fs::create_directories(data.path() / "applications");
        // Not an INI file: commas and semicolons belong to the value, and only
        // the [Desktop Entry] group counts.
        std::ofstream(data.path() / "applications" / "kestrelvane.desktop")
            << "# X-Kestrelvane-Appcast-URL=https://commented.example.org/\n"
               "[Desktop Entry]\nType=Application\nName=Kestrelvane\n"
               "Categories=Graphics;Photography;\n"
               "X-Kestrelvane-Appcast-URL = https://updates.example.org/a,b;c/"
               "appcast.xml?a=b&c=d&e=x\\sy\r\n"
               "[Desktop Action Beta]\nX-Kestrelvane-Appcast-URL=https://beta.example.org/\n";
        const QByteArray savedData = qgetenv("XDG_DATA_HOME");
        const QByteArray savedFeed = qgetenv("KESTRELVANE_APPCAST_URL");
        qputenv("XDG_DATA_HOME", QByteArray::fromStdString(data.path().string()));
        qunsetenv("KESTRELVANE_APPCAST_URL");
        const QUrl fromEntry = AppcastUpdater::configuredFeed();
        qputenv("KESTRELVANE_APPCAST_URL", "http://127.0.0.1:1/feed.xml");
        const QUrl fromEnvironment = AppcastUpdater::configuredFeed();
        qputenv("XDG_DATA_HOME", savedData);
        qputenv("KESTRELVANE_APPCAST_URL", savedFeed);
        QCOMPARE(fromEntry.toString(),
                 "https://updates.example.org/a,b;c/appcast.xml?a=b&c=d&e=x y");
        QCOMPARE(fromEnvironment, QUrl("http://127.0.0.1:1/feed.xml"));
    }

    void anUnreachableOrBrokenFeedFailsAndCanBeCheckedAgain() {
        AppcastServer missing("gone", 404);
        AppcastUpdater updater(missing.url(), QStringLiteral("1"));
        updater.start();
        QTRY_VERIFY_WITH_TIMEOUT(updater.canCheckForUpdates(), 30'000);
        const AppcastUpdater::Result result = checkOnce(updater);
        QCOMPARE(result.kind, Kind::failed);
        QVERIFY(!result.message.isEmpty());
        QVERIFY(updater.canCheckForUpdates());

        AppcastServer garbage("<rss><channel><item>");
        AppcastUpdater broken(garbage.url(), QStringLiteral("1"));
        broken.start();
        QTRY_VERIFY_WITH_TIMEOUT(broken.canCheckForUpdates(), 30'000);
        QCOMPARE(checkOnce(broken).kind, Kind::failed);
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::AppcastUpdaterTest)
#include "AppcastUpdaterTest.moc"
