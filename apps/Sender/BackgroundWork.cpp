#include "Sender/BackgroundWork.h"

#include <algorithm>
#include <cerrno>
#include <sys/resource.h>
#include <unistd.h>

namespace kestrelvane {

BackgroundWork::BackgroundWork(int threads, Priority priority, QObject* parent) : QObject(parent) {
    for (int i = 0; i < threads; ++i) {
        threads_.emplace_back([this, priority] { work(priority); });
    }
}

BackgroundWork::~BackgroundWork() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        jobs_.clear();
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

void BackgroundWork::run(std::function<void()> job) {
    {
        const std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    changed_.notify_all();
}

void BackgroundWork::runThenDeliver(std::function<std::function<void()>()> job) {
    run([this, job = std::move(job)] {
        if (std::function<void()> then = job()) {
            deliver(std::move(then));
        }
    });
}

void BackgroundWork::clearWaiting() {
    {
        const std::lock_guard lock(mutex_);
        jobs_.clear();
    }
    changed_.notify_all();
}

bool BackgroundWork::waitForDone(std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, deadline, [this] { return jobs_.empty() && running_ == 0; });
}

void BackgroundWork::work(Priority priority) {
    if (priority == Priority::low) {
        // On Linux a thread's nice value is its own; processes it starts inherit it.
        const auto self = static_cast<id_t>(::gettid());
        errno = 0;
        const int current = ::getpriority(PRIO_PROCESS, self);
        if (errno == 0) {
            // Failing leaves the thread at normal priority, which still works.
            ::setpriority(PRIO_PROCESS, self, std::min(current + lowPriorityNiceness, 19));
        }
    }
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (stopping_) {
            return;
        }
        std::function<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        ++running_;
        lock.unlock();
        job();
        job = nullptr; // its captures go before the job counts as done
        lock.lock();
        --running_;
        changed_.notify_all();
    }
}

void BackgroundWork::deliver(std::function<void()> work) {
    bool first = false;
    {
        const std::lock_guard lock(mutex_);
        first = inbox_.empty();
        inbox_.push_back(std::move(work));
    }
    if (first) {
        QMetaObject::invokeMethod(this, &BackgroundWork::drain, Qt::QueuedConnection);
    }
}

void BackgroundWork::drain() {
    std::deque<std::function<void()>> batch;
    {
        const std::lock_guard lock(mutex_);
        batch.swap(inbox_);
    }
    for (auto& work : batch) {
        work();
    }
}

} // namespace kestrelvane
