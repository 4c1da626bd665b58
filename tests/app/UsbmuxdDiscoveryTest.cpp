#include "Sender/UsbmuxdDiscovery.h"

#include "support/SimulatorProcess.h"

#include <QSignalSpy>
#include <QTest>

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
    void eachPhoneShowsAsWhatItsReceiverAllows() {
        const struct {
            bool daemon;
            std::vector<std::string> phones;
            Kind kind;
            int tunnels;
        } cases[] = {
            {false, {}, Kind::noDevice, 0},
            {true, {}, Kind::noDevice, 0},
            {true, {"SHUT,0x12a8,none"}, Kind::appNotListening, 0},
            {true, {"GONE,0x12a8,vanished"}, Kind::noDevice, 0}, // unplugged while probed
            {true, {"FIRST,0x12a8,none", "SECOND,0x12a8,test"}, Kind::appNotListening, 0},
            {true, {"PHONE,0x12a8,test"}, Kind::ready, 1},
        };
        for (const auto& [daemon, phones, kind, tunnels] : cases) {
            std::optional<Simulator> sim;
            if (daemon) {
                sim.emplace(phones);
            }
            UsbmuxdDiscovery discovery(
                sim ? sim->address() : UsbmuxdClient::SocketAddress{"/nonexistent/usbmuxd", {}, 0},
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
            QCOMPARE(sim ? sim->tunnelsOpened() : 0, tunnels);
        }
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
