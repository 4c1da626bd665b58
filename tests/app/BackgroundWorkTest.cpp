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

/// The nice value of the thread that runs a job of `work`, delivered back.
int nicenessOfAWorker(BackgroundWork& work) {
    std::optional<int> seen;
    work.runThenDeliver([&seen] {
        return std::function<void()>([&seen, niceness = ownNiceness()] { seen = niceness; });
    });
    return QTest::qWaitFor([&] { return seen.has_value(); }, 10'000) ? *seen : -1000;
}

} // namespace

class BackgroundWorkTest : public QObject {
    Q_OBJECT

private slots:
    void lowPriorityWorkersYieldToTheOwnersThread() {
        const int owner = ownNiceness();
        BackgroundWork normal(1);
        QCOMPARE(nicenessOfAWorker(normal), owner);
        BackgroundWork low(2, BackgroundWork::Priority::low);
        QCOMPARE(nicenessOfAWorker(low), std::min(owner + BackgroundWork::lowPriorityNiceness, 19));
        QCOMPARE(ownNiceness(), owner); // only the workers
    }

    void jobsRunInOrderOnAWorkerDeliverOnTheOwnersThreadAndAreWaitedFor() {
        BackgroundWork work(1);
        std::vector<int> order;
        std::atomic<bool> ranOnWorker = true;
        for (int i = 0; i < 5; ++i) {
            work.runThenDeliver([i, &order, &ranOnWorker, owner = QThread::currentThread()] {
                ranOnWorker = ranOnWorker && QThread::currentThread() != owner;
                return std::function<void()>([&order, i, owner] {
                    order.push_back(QThread::currentThread() == owner ? i : -1);
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
        QVERIFY(ranOnWorker);
    }
};

} // namespace kestrelvane

QTEST_GUILESS_MAIN(kestrelvane::BackgroundWorkTest)
#include "BackgroundWorkTest.moc"
