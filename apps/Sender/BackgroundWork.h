#pragma once

#include <QObject>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrelvane {

/// A fixed number of worker threads that take jobs in order of submission,
/// and an inbox that brings work back to the owner's thread. Jobs and
/// deliveries meet only under this object's own mutex, so a handed-over value
/// is fully written before it is read (and the sanitizers can see that).
///
/// The owner's object must outlive nothing the jobs use: destroy this first.
class BackgroundWork : public QObject {
    Q_OBJECT
public:
    /// `low`: the workers run niced, so that work the user only glances at
    /// (thumbnails) yields the cores to the window and to a send in progress.
    enum class Priority { normal, low };
    static constexpr int lowPriorityNiceness = 10;

    /// With no threads it only delivers.
    explicit BackgroundWork(int threads, Priority priority = Priority::normal,
                            QObject* parent = nullptr);
    /// Drops the jobs still waiting, waits for the running ones and joins
    /// every thread; deliveries not yet made are dropped.
    ~BackgroundWork() override;

    /// Queues `job` for the next free worker.
    void run(std::function<void()> job);
    /// Queues `job` for the next free worker and delivers what it returns
    /// (when not empty). Jobs use this rather than reaching this object
    /// through their owner, whose pointer to it is gone once its destruction
    /// has begun, while a running job still finishes.
    void runThenDeliver(std::function<std::function<void()>()> job);
    /// Drops the jobs that have not started.
    void clearWaiting();
    /// Waits until no job waits or runs; false when `deadline` passed first.
    bool waitForDone(std::chrono::milliseconds deadline);

    /// Runs `work` on the owner's thread, in order of delivery; any thread.
    void deliver(std::function<void()> work);

private:
    void work(Priority priority);
    void drain();

    std::mutex mutex_; // guards everything below
    std::condition_variable changed_;
    std::deque<std::function<void()>> jobs_;
    std::deque<std::function<void()>> inbox_;
    int running_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace kestrelvane
