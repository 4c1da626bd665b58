#include "Sender/BackgroundWork.h"

#include <QTest>
#include <QThread>

#include <atomic>
#include <future>
#include <sys/resource.h>
#include <unistd.h>

namespace kestrelvane {

namespace {

int ownNiceness() {
    return ::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()));
}

} // namespace

class BackgroundWorkTest : public QObject {
    Q_OBJECT

private slots:
    void jobsRunInOrderOnALowPriorityWorkerDeliverOnTheOwnersThreadAndAreWaitedFor() {
        const int owner = ownNiceness();
        BackgroundWork work(1, BackgroundWork::Priority::low);
        std::vector<int> order;
        std::atomic<int> workerNiceness = 0;
        for (int i = 0; i < 5; ++i) {
            work.runThenDeliver(
                [i, &order, &workerNiceness, ownerThread = QThread::currentThread()] {
                    workerNiceness = QThread::currentThread() == ownerThread ? -100 : ownNiceness();
                    return std::function<void()>([&order, i, ownerThread] {
                        order.push_back(QThread::currentThread() == ownerThread ? i : -1);
                    });
                });
        }
        std::promise<void> started;
        std::promise<void> release;
        work.run([&started, released = release.get_future().share()] {
            started.set_value();
            released.wait();
        });
        started.get_future().wait();
        QVERIFY(!work.waitForDone(std::chrono::milliseconds(1))); // no job waits, the last runs
        release.set_value();
        QVERIFY(work.waitForDone(std::chrono::seconds(30)));
        QVERIFY(QTest::qWaitFor([&] { return order.size() == 5; }, 10'000));
        QCOMPARE(order, (std::vector<int>{0, 1, 2, 3, 4}));
        // Only the workers yield: the owner's thread keeps its priority.
        QCOMPARE(workerNiceness.load(), std::min(owner + BackgroundWork::lowPriorityNiceness, 19));
        QCOMPARE(ownNiceness(), owner);
    }
};

} // namespace kestrelvane

QTEST_GUILESS_MAIN(kestrelvane::BackgroundWorkTest)
#include "BackgroundWorkTest.moc"
