#include "Sender/AppcastUpdater.h"

#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <QSignalSpy>
#include <QTest>

namespace kestrelvane {

using Kind = AppcastUpdater::Result::Kind;

namespace {

QByteArray appcast(const QByteArray& items) {
    return "<rss version=\"2.0\" "
           "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\"><channel>" +
           items + "</channel></rss>";
}

const QByteArray twoReleases = appcast(
    "<item><title>Version 2.1</title><sparkle:version>210</sparkle:version>"
    "<sparkle:shortVersionString>2.1</sparkle:shortVersionString>"
    "<sparkle:releaseNotesLink>https://example.org/notes/2.1.html</sparkle:releaseNotesLink>"
    "<enclosure url=\"https://example.org/Kestrelvane-2.1.tar.gz\" length=\"100\"/></item>"
    "<item><title>Version 2.0</title><enclosure url=\"https://example.org/Kestrelvane-2.0.tar.gz\" "
    "sparkle:version=\"200\" sparkle:shortVersionString=\"2.0\"/></item>");

/// A feed fetched through the network code, from a data: URL.
QUrl served(const QByteArray& body) {
    return QUrl(QString::fromLatin1("data:application/rss+xml;base64," + body.toBase64()));
}

AppcastUpdater::Result checkOnce(const QUrl& feed, const QString& current) {
    AppcastUpdater updater(feed, current);
    QSignalSpy finished(&updater, &AppcastUpdater::checkFinished);
    updater.start();
    if (QTest::qWaitFor([&] { return updater.canCheckForUpdates(); }, 30'000)) {
        updater.checkForUpdates();
    }
    // No answer is a failure without a reason, which no test accepts.
    return finished.wait(30'000) ? finished.first().first().value<AppcastUpdater::Result>()
                                 : AppcastUpdater::Result{};
}

} // namespace

class AppcastUpdaterTest : public QObject {
    Q_OBJECT

private slots:
    void versionsCompareByTheirNumbersAndPreReleasesComeFirst() {
        const std::pair<const char*, const char*> newerOlder[] = {
            {"1.10", "1.9"},    {"1.0.1", "1.0"},   {"1.0.0", "1.0"}, {"1.0", "1.0b1"},
            {"1.0b2", "1.0b1"}, {"1.0.1", "1.0b1"}, {"210", "0.1.0"}};
        for (const auto& [newer, older] : newerOlder) {
            QVERIFY2(AppcastUpdater::compareVersions(newer, older) > 0, newer);
            QVERIFY2(AppcastUpdater::compareVersions(older, newer) < 0, older);
        }
        QCOMPARE(AppcastUpdater::compareVersions("2.0", "2.0"), 0);
    }

    void theNewestItemOfAnAppcastIsTheLatestRelease() {
        const auto latest = AppcastUpdater::latestRelease(twoReleases);
        QVERIFY(latest.has_value());
        QCOMPARE(latest->version, "210");
        QCOMPARE(latest->shortVersion, "2.1");
        QCOMPARE(latest->releaseNotesUrl, QUrl("https://example.org/notes/2.1.html"));
        QCOMPARE(latest->downloadUrl, QUrl("https://example.org/Kestrelvane-2.1.tar.gz"));

        for (const QByteArray& feed :
             {QByteArray("not xml at all <<<"), appcast(""), appcast("<item><title>x</title>"),
              appcast("<item><title>no version</title></item>")}) {
            QVERIFY2(!AppcastUpdater::latestRelease(feed).has_value(), feed.constData());
        }
    }

    void aCheckRunsOnlyOnceStartedWithAFeedAndOneAtATime() {
        AppcastUpdater updater(served(twoReleases), QStringLiteral("200"));
        AppcastUpdater unconfigured(QUrl(), QStringLiteral("200"));
        QVERIFY(!updater.canCheckForUpdates());
        updater.start();
        unconfigured.start();
        QTRY_VERIFY_WITH_TIMEOUT(updater.canCheckForUpdates(), 30'000);
        QVERIFY(!unconfigured.canCheckForUpdates());
        updater.checkForUpdates();
        QVERIFY(!updater.canCheckForUpdates()); // a second check now is refused
        QTRY_VERIFY_WITH_TIMEOUT(updater.canCheckForUpdates(), 30'000);
    }

    void aCheckReportsANewerReleaseThisOneAsCurrentOrWhyItFailed() {
        const AppcastUpdater::Result newer = checkOnce(served(twoReleases), "200");
        QCOMPARE(newer.kind, Kind::updateAvailable);
        QCOMPARE(newer.latest.shortVersion, "2.1");
        QCOMPARE(checkOnce(served(twoReleases), "210").kind, Kind::upToDate);
        for (const QUrl& broken :
             {QUrl("file:///nonexistent/appcast.xml"), served("<rss><channel><item>")}) {
            const AppcastUpdater::Result result = checkOnce(broken, "1");
            QCOMPARE(result.kind, Kind::failed);
            QVERIFY(!result.message.isEmpty());
        }
    }

    void theFeedComesFromTheEnvironmentElseTheInstalledDesktopEntry() {
        testing::TemporaryFolder data;
        // Not an INI file: commas and semicolons belong to the value, and only
        // the [Desktop Entry] group counts.
        testing::writeFile(data.path() / "applications" / "kestrelvane.desktop",
                           "# X-Kestrelvane-Appcast-URL=https://commented.example.org/\n"
                           "[Desktop Entry]\nType=Application\nName=Kestrelvane\n"
                           "Categories=Graphics;Photography;\n"
                           "X-Kestrelvane-Appcast-URL = https://updates.example.org/a,b;c/"
                           "appcast.xml?a=b&c=d&e=x\\sy\r\n"
                           "[Desktop Action Beta]\n"
                           "X-Kestrelvane-Appcast-URL=https://beta.example.org/\n");
        const testing::ScopedEnvironment dataHome("XDG_DATA_HOME", data.path().string());
        std::optional<testing::ScopedEnvironment> feed;
        feed.emplace("KESTRELVANE_APPCAST_URL", std::nullopt);
        QCOMPARE(AppcastUpdater::configuredFeed().toString(),
                 "https://updates.example.org/a,b;c/appcast.xml?a=b&c=d&e=x y");
        feed.emplace("KESTRELVANE_APPCAST_URL", "http://127.0.0.1:1/feed.xml");
        QCOMPARE(AppcastUpdater::configuredFeed(), QUrl("http://127.0.0.1:1/feed.xml"));
    }
};

} // namespace kestrelvane

QTEST_GUILESS_MAIN(kestrelvane::AppcastUpdaterTest)
#include "AppcastUpdaterTest.moc"
