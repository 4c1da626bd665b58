#include "Sender/UsbmuxdDiscovery.h"

#include "MediaFiles.h"
#include "Sender/SenderViewModel.h"
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

namespace fs = std::filesystem;
using State = UsbmuxdDiscovery::State;
using Simulator = testing::SimulatorProcess;

namespace {

constexpr std::chrono::milliseconds testInterval{20};

bool waitForPasses(QSignalSpy& passes, int more) {
    const int target = passes.count() + more;
    return QTest::qWaitFor([&] { return passes.count() >= target; }, 30'000);
}

} // namespace

class UsbmuxdDiscoveryTest : public QObject {
    Q_OBJECT

private slots:
    void withoutADaemonThereIsNoDeviceAndPassesGoOn() {
        testing::TemporaryFolder folder;
        UsbmuxdDiscovery discovery({(folder.path() / "absent").string(), {}, 0}, testInterval);
        QSignalSpy changes(&discovery, &UsbmuxdDiscovery::stateChanged);
        QSignalSpy passes(&discovery, &UsbmuxdDiscovery::passFinished);
        discovery.start();
        discovery.start(); // a second start does not add a second loop
        QVERIFY(waitForPasses(passes, 3));
        QVERIFY(discovery.state() == State::noDevice());
        QCOMPARE(changes.count(), 0);
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

    void aRefusingReceiverIsNotListening() {
        Simulator sim({"REFUSER,0x12a8,none"});
        UsbmuxdDiscovery discovery(sim.address(), testInterval);
        discovery.start();
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state() == State::appNotListening(1), 30'000);
    }

    void aListeningReceiverIsHeldReadyAndNeverProbedAgain() {
        Simulator sim({"PHONE,0x12a8,test"});
        UsbmuxdDiscovery discovery(sim.address(), testInterval);
        QSignalSpy changes(&discovery, &UsbmuxdDiscovery::stateChanged);
        QSignalSpy passes(&discovery, &UsbmuxdDiscovery::passFinished);
        discovery.start();
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state().kind == State::Kind::ready, 30'000);
        QCOMPARE(discovery.state().deviceID, 1);
        QVERIFY(discovery.state().fileDescriptor >= 0);
        QVERIFY(waitForPasses(passes, 5));
        QCOMPARE(changes.count(), 1);
        discovery.stop();
        QVERIFY(discovery.state() == State::noDevice());
        QCOMPARE(sim.tunnelsOpened(), 1);
    }

    void onlyTheFirstOfTwoPhonesIsProbed() {
        Simulator sim({"FIRST,0x12a8,none", "SECOND,0x12a8,test"});
        UsbmuxdDiscovery discovery(sim.address(), testInterval);
        QSignalSpy passes(&discovery, &UsbmuxdDiscovery::passFinished);
        discovery.start();
        QVERIFY(waitForPasses(passes, 4));
        QVERIFY(discovery.state() == State::appNotListening(1));
        discovery.stop();
        QCOMPARE(sim.tunnelsOpened(), 0);
    }

    void theTunnelIsHandedOutOnceAndThenProbedAfresh() {
        Simulator sim({"PHONE,0x12a8,echo"});
        UsbmuxdDiscovery discovery(sim.address(), testInterval);
        discovery.start();
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state().kind == State::Kind::ready, 30'000);
        const int held = discovery.state().fileDescriptor;
        discovery.setPaused(true);
        const std::optional<int> taken = discovery.takeReadyTunnel();
        QVERIFY(taken == held);
        QVERIFY(discovery.state() == State::appNotListening(1));
        QVERIFY(!discovery.takeReadyTunnel());

        // The caller owns a working tunnel: the echo receiver answers through it.
        const char ping[] = "ping";
        QCOMPARE(::write(*taken, ping, 4), 4);
        char pong[4] = {};
        QCOMPARE(::read(*taken, pong, 4), 4);
        QCOMPARE(std::string(pong, 4), std::string("ping"));
        ::close(*taken);

        discovery.setPaused(false);
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state().kind == State::Kind::ready, 30'000);
    }

    void whilePausedAnUnpluggedPhoneLeavesTheStateUntilResumed() {
        Simulator sim({"PHONE,0x12a8,test"});
        UsbmuxdDiscovery discovery(sim.address(), testInterval);
        QSignalSpy passes(&discovery, &UsbmuxdDiscovery::passFinished);
        discovery.start();
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state().kind == State::Kind::ready, 30'000);
        const State ready = discovery.state();
        discovery.setPaused(true);
        QVERIFY(sim.detach("PHONE"));
        QVERIFY(waitForPasses(passes, 3));
        QVERIFY(discovery.state() == ready);
        discovery.setPaused(false);
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state() == State::noDevice(), 30'000);
    }

    void stopThenStartPollsAgainFromNoDevice() {
        Simulator sim({"PHONE,0x12a8,test"});
        UsbmuxdDiscovery discovery(sim.address(), testInterval);
        QSignalSpy changes(&discovery, &UsbmuxdDiscovery::stateChanged);
        discovery.start();
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state().kind == State::Kind::ready, 30'000);
        discovery.stop();
        QVERIFY(!discovery.isRunning());
        QVERIFY(discovery.state() == State::noDevice());
        discovery.start();
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state().kind == State::Kind::ready, 30'000);
        QCOMPARE(changes.count(), 3);
    }

    void aSendFromTheViewModelReachesThePhoneThroughTheTunnel() {
        testing::TemporaryFolder received;
        Simulator sim({"PHONE,0x12a8,folder=" + received.path().string()});
        testing::TemporaryFolder source;
        const std::vector<fs::path> files = testing::writePhotos(source.path(), 5);
        SenderViewModel model;
        QSignalSpy added(&model.queue(), &TransferQueue::addFinished);
        model.addURLs(files);
        QVERIFY(added.wait(30'000));

        UsbmuxdDiscovery discovery(sim.address(), testInterval);
        discovery.start();
        QTRY_VERIFY_WITH_TIMEOUT(discovery.state().kind == State::Kind::ready, 30'000);
        const std::optional<int> tunnel = discovery.takeReadyTunnel();
        QVERIFY(tunnel);
        discovery.setPaused(true);
        int failures = 0;
        model.send(*tunnel, [&] { ++failures; });
        QVERIFY(model.isSending());
        QCOMPARE(model.queue().unsentItems().front().status, TransferQueue::Status::sending());
        QTRY_VERIFY_WITH_TIMEOUT(!model.isSending(), 30'000);
        QCOMPARE(model.queue().savedCount(), 5);
        QCOMPARE(failures, 0);
        QCOMPARE(received.fileNames(),
                 (std::vector<std::string>{"IMG_0.jpg", "IMG_1.jpg", "IMG_2.jpg", "IMG_3.jpg",
                                           "IMG_4.jpg"}));
        QCOMPARE(testing::contentsOf(received.path() / "IMG_4.jpg"), testing::contentsOf(files[4]));
    }
};

} // namespace kestrelvane

QTEST_MAIN(kestrelvane::UsbmuxdDiscoveryTest)
#include "UsbmuxdDiscoveryTest.moc"
