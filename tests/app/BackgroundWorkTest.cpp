#include "Sender/BackgroundWork.h"

#include <QTest>
#include <QThread>

#include <atomic>
#include <functional>
#include <optional>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace kestrelvane {

namespace {

int ownNiceness() {
    return ::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()));
}

/// The nice value of the thread that runs a job of `work`, delivered back.
int nicenessOfAWorker(BackgroundWork& work) {
    std::optional<int> seen;
    work.runThenDeliver([&seen] {
        const int niceness = ownNiceness();
        return std::function<void()>([&seen, niceness] { seen = niceness; });
    });
    if (!QTest::qWaitFor([&] { return seen.has_value(); }, 10'000)) {
        return -1000;
    }
    return *seen;
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
        // Only the workers: the owner's thread keeps its priority.
        QCOMPARE(ownNiceness(), owner);
    }

    void jobsRunInOrderAndDeliveriesArriveOnTheOwnersThread() {
        BackgroundWork work(1);
        std::vector<int> order;
        std::atomic<bool> ranOnWorker = true;
        for (int i = 0; i < 5; ++i) {
            work.runThenDeliver([i, &order, &ranOnWorker, owner = QThread::currentThread()] {
                if (QThread::currentThread() == owner) {
                    ranOnWorker = false;
                }
                return std::function<void()>([&order, i, owner] {
                    order.push_back(QThread::currentThread() == owner ? i : -1);
                });
            });
        }
        QVERIFY(QTest::qWaitFor([&] { return order.size() == 5; }, 10'000));
        QCOMPARE(order, (std::vector<int>{0, 1, 2, 3, 4}));
        QVERIFY(ranOnWorker);
    }
};

} // namespace kestrelvane

QTEST_GUILESS_MAIN(kestrelvane::BackgroundWorkTest)
#include "BackgroundWorkTest.moc"
