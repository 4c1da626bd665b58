#include "Sender/UsbmuxdDiscovery.h"

#include "support/FakeUsbmuxd.h"
#include "support/SimulatorProcess.h"
#include "support/TemporaryFolder.h"

#include <QSignalSpy>
#include <QTest>

#include <atomic>
#include <future>
#include <thread>
#include <unistd.h>

namespace kestrelvane {

using State = UsbmuxdDiscovery::State;
using Kind = State::Kind;
using Simulator = testing::SimulatorProcess;

namespace {

constexpr std::chrono::milliseconds testInterval{20};

bool waitForPasses(QSignalSpy& passes, int more) {
    const int target = passes.count() + more;
    return QTest::qWaitFor([&] { return passes.count() >= target; }, 30'000);
}

bool becomesReady(const UsbmuxdDiscovery& discovery) {
    return QTest::qWaitFor([&] { return discovery.state().kind == Kind::ready; }, 30'000);
}

} // namespace

class UsbmuxdDiscoveryTest : public QObject {
    Q_OBJECT

private slots:
    // What the first pass finds, kept by every pass after it without probing again.
    void eachPhoneShowsAsWhatItsReceiverAllows_data() {
        QTest::addColumn<QStringList>("phones"); // {"-"}: no daemon at all
        QTest::addColumn<int>("kindNumber");
        QTest::addColumn<int>("tunnels");
        QTest::newRow("no daemon") << QStringList{"-"} << int(Kind::noDevice) << 0;
        QTest::newRow("no phone") << QStringList{} << int(Kind::noDevice) << 0;
        QTest::newRow("receiver closed")
            << QStringList{"SHUT,0x12a8,none"} << int(Kind::appNotListening) << 0;
        QTest::newRow("gone while probed")
            << QStringList{"GONE,0x12a8,vanished"} << int(Kind::noDevice) << 0;
        QTest::newRow("only the first phone")
            << QStringList{"FIRST,0x12a8,none", "SECOND,0x12a8,test"} << int(Kind::appNotListening)
            << 0;
        QTest::newRow("listening") << QStringList{"PHONE,0x12a8,test"} << int(Kind::ready) << 1;
    }
    void eachPhoneShowsAsWhatItsReceiverAllows() {
        QFETCH(QStringList, phones);
        QFETCH(int, kindNumber);
        const auto kind = static_cast<Kind>(kindNumber);
        QFETCH(int, tunnels);
        testing::TemporaryFolder folder;
        std::optional<Simulator> sim;
        if (phones != QStringList{"-"}) {
            std::vector<std::string> described;
            for (const QString& phone : phones) {
                described.push_back(phone.toStdString());
            }
            sim.emplace(described);
        }
        UsbmuxdDiscovery discovery(
            sim ? sim->address()
                : UsbmuxdClient::SocketAddress{(folder.path() / "absent").string(), {}, 0},
            testInterval);
        QSignalSpy changes(&discovery, &UsbmuxdDiscovery::stateChanged);
        QSignalSpy passes(&discovery, &UsbmuxdDiscovery::passFinished);
        discovery.start();
        QVERIFY(waitForPasses(passes, 5));
        QCOMPARE(discovery.state().kind, kind);
        QCOMPARE(discovery.state().deviceID, std::int64_t{kind == Kind::noDevice ? 0 : 1});
        QCOMPARE(discovery.state().fileDescriptor >= 0, kind == Kind::ready);
        QCOMPARE(changes.count(), kind == Kind::noDevice ? 0 : 1);
        discovery.stop();
        QVERIFY(discovery.state() == State::noDevice());
        if (sim) {
            QCOMPARE(sim->tunnelsOpened(), tunnels);
        }
    }

    // The daemon answers only once the discovery's destruction is under way,
    // so the answer reaches a worker whose owner is going away.
    void destroyingTheDiscoveryDuringAPassEndsIt() {
        std::promise<void> entered;
        std::promise<void> release;
        std::shared_future<void> released = release.get_future().share();
        std::atomic<bool> first{true};
        testing::FakeUsbmuxd daemon([&](const testing::FakeUsbmuxd::Request& request) {
            if (first.exchange(false)) {
                entered.set_value();
                released.wait();
            }
            PropertyList reply = PropertyList::dictionary();
            reply.set("DeviceList", PropertyList::array());
            return testing::FakeUsbmuxd::Reply{testing::FakeUsbmuxd::packet(request.tag, reply)};
        });
        auto discovery = std::make_unique<UsbmuxdDiscovery>(daemon.address(), testInterval);
        discovery->start();
        QVERIFY(entered.get_future().wait_for(std::chrono::seconds(30)) ==
                std::future_status::ready);
        std::thread releaser([&release] { release.set_value(); });
        discovery.reset();
        releaser.join();
    }

    void aHandedOutTunnelWorksAndItsPhoneIsProbedAfreshAndPausesKeepTheState() {
        Simulator sim({"PHONE,0x12a8,echo"});
        UsbmuxdDiscovery discovery(sim.address(), testInterval);
        QSignalSpy passes(&discovery, &UsbmuxdDiscovery::passFinished);
        discovery.start();
        QVERIFY(becomesReady(discovery));
        const int held = discovery.state().fileDescriptor;
        discovery.setPaused(true);
        const std::optional<int> taken = discovery.takeReadyTunnel();
        QVERIFY(taken == held);
        QVERIFY(discovery.state() == State::appNotListening(1));
        QVERIFY(!discovery.takeReadyTunnel());

        // The caller owns a working tunnel: the echo receiver answers through it.
        QCOMPARE(::write(*taken, "ping", 4), 4);
        char pong[4] = {};
        QCOMPARE(::read(*taken, pong, 4), 4);
        QCOMPARE(std::string(pong, 4), std::string("ping"));
        ::close(*taken);

        discovery.setPaused(false);
        QVERIFY(becomesReady(discovery));
        // While paused, an unplugged phone leaves the state alone until resumed.
        const State ready = discovery.state();
        discovery.setPaused(true);
        QVERIFY(sim.detach("PHONE"));
        QVERIFY(waitForPasses(passes, 3));
        QVERIFY(discovery.state() == ready);
        discovery.setPaused(false);
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state() == State::noDevice(), 30'000);
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::UsbmuxdDiscoveryTest)
#include "UsbmuxdDiscoveryTest.moc"
