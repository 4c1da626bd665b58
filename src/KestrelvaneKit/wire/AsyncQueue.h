#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

namespace kestrelvane {

/// An unbounded queue with one consumer: values published from any thread are
/// handed out by next() in the order published, then the end is reported once
/// finish() has been called and everything before it has been taken.
template <class T> class AsyncQueue {
public:
    /// Never waits. Drops the value once the queue is finished.
    void publish(T value) {
        {
            const std::lock_guard lock(mutex_);
            if (finished_) {
                return;
            }
            values_.push_back(std::move(value));
        }
        changed_.notify_one();
    }

    /// Ends the queue; a second call does nothing.
    void finish() {
        {
            const std::lock_guard lock(mutex_);
            finished_ = true;
        }
        changed_.notify_all();
    }

    /// Waits for the next value; nothing once the queue is finished and empty.
    std::optional<T> next() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !values_.empty() || finished_; });
        if (values_.empty()) {
            return std::nullopt;
        }
        T value = std::move(values_.front());
        values_.pop_front();
        return value;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<T> values_;
    bool finished_ = false;
};

} // namespace kestrelvane
