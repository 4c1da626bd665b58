#include "Sender/DeviceBrowser.h"

#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <optional>
#include <thread>

namespace kestrelvane {

namespace {

DiscoveredService phone(const std::string& name, std::uint16_t port = 9876) {
    return {name, "local", name + ".local", {"192.168.1.20"}, port};
}

/// Reports `services` the way the DNS-SD browser does: from a thread of its own.
void reportFromAnotherThread(DeviceBrowser& browser, std::vector<DiscoveredService> services) {
    std::thread([&browser, services] { browser.resultsChanged(services); }).join();
}

} // namespace

class DeviceBrowserTest : public QObject {
    Q_OBJECT

private slots:
    void everyReportReplacesTheListOnTheGuiThread() {
        DeviceBrowser browser(nullptr, "_kestrelvane-test._tcp");
        QVERIFY(browser.devices().empty());
        QSignalSpy changed(&browser, &DeviceBrowser::devicesChanged);
        bool onGuiThread = true;
        connect(&browser, &DeviceBrowser::devicesChanged, this,
                [&] { onGuiThread = onGuiThread && QThread::currentThread() == thread(); });

        const std::vector<DiscoveredService> three{phone("Anna"), phone("Ben"), phone("Cleo")};
        reportFromAnotherThread(browser, three);
        QTRY_COMPARE_WITH_TIMEOUT(changed.count(), 1, 30'000);
        QVERIFY(browser.devices() == three);

        reportFromAnotherThread(browser, {phone("Ben", 9877)});
        QTRY_COMPARE_WITH_TIMEOUT(changed.count(), 2, 30'000);
        QVERIFY(browser.devices() == std::vector<DiscoveredService>{phone("Ben", 9877)});

        reportFromAnotherThread(browser, {}); // the last phone went away
        QTRY_COMPARE_WITH_TIMEOUT(changed.count(), 3, 30'000);
        QVERIFY(browser.devices().empty());
        QVERIFY(onGuiThread);
    }

    void stopEmptiesTheListAndDropsReportsStillOnTheirWay() {
        DeviceBrowser browser(nullptr, "_kestrelvane-test._tcp");
        browser.stop(); // without a start: only empties
        QVERIFY(browser.devices().empty());
        QVERIFY(!browser.isBrowsing());

        // The real DNS-SD browser, with no Avahi daemon to reach, finds nothing.
        const char* bus = "DBUS_SYSTEM_BUS_ADDRESS";
        const std::optional<QByteArray> savedBus =
            qEnvironmentVariableIsSet(bus) ? std::optional(qgetenv(bus)) : std::nullopt;
        qputenv(bus, "unix:path=/nonexistent/kestrelvane-test-bus");
        browser.start();
        savedBus ? qputenv(bus, *savedBus) : qunsetenv(bus);
        QVERIFY(browser.isBrowsing());
        QCoreApplication::processEvents();
        QVERIFY(browser.devices().empty());
        reportFromAnotherThread(browser, {phone("Anna")});
        QTRY_COMPARE_WITH_TIMEOUT(browser.devices().size(), std::size_t{1}, 30'000);

        reportFromAnotherThread(browser, {phone("Anna"), phone("Ben")}); // queued, not applied yet
        browser.stop();
        QVERIFY(browser.devices().empty());
        QCoreApplication::processEvents();
        QVERIFY(browser.devices().empty());
        QVERIFY(!browser.isBrowsing());
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::DeviceBrowserTest)
#include "DeviceBrowserTest.moc"
