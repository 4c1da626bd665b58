#include "Sender/DeviceBrowser.h"

#include "support/ScopedEnvironment.h"

#include <QSignalSpy>
#include <QTest>

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
    void everyReportFromTheBrowsersThreadReplacesTheListUntilStopped() {
        DeviceBrowser browser(nullptr, "_kestrelvane-test._tcp");
        QSignalSpy changed(&browser, &DeviceBrowser::devicesChanged);
        {
            // The real DNS-SD browser, with no Avahi daemon to reach, finds nothing.
            const testing::ScopedEnvironment bus("DBUS_SYSTEM_BUS_ADDRESS",
                                                 "unix:path=/nonexistent/kestrelvane-test-bus");
            browser.start();
        }

        const std::vector<DiscoveredService> three{phone("Anna"), phone("Ben"), phone("Cleo")};
        reportFromAnotherThread(browser, three);
        QTRY_COMPARE_WITH_TIMEOUT(changed.count(), 1, 30'000);
        QVERIFY(browser.devices() == three);
        reportFromAnotherThread(browser, {phone("Ben", 9877)});
        QTRY_COMPARE_WITH_TIMEOUT(changed.count(), 2, 30'000);
        QVERIFY(browser.devices() == std::vector<DiscoveredService>{phone("Ben", 9877)});

        // A report still on its way when the browser stops is dropped.
        reportFromAnotherThread(browser, three);
        browser.stop();
        QCoreApplication::processEvents();
        QVERIFY(browser.devices().empty());
        QCOMPARE(changed.count(), 3);
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::DeviceBrowserTest)
#include "DeviceBrowserTest.moc"
