#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

namespace kestrelvane {

/// Bounds what a sender has written but not yet seen acknowledged, in bytes
/// and in files. A file is admitted while fewer than `minFiles` are in flight,
/// or else while its bytes still fit under `maxBytes`; waiting reservations
/// are admitted strictly in the order they were asked for.
class Inflight {
public:
    struct Snapshot {
        std::uint64_t bytes = 0;
        std::int64_t files = 0;
        friend bool operator==(const Snapshot&, const Snapshot&) = default;
    };

    /// `maxBytes` below 0 counts as 0, `minFiles` below 1 as 1.
    Inflight(std::int64_t maxBytes, std::int64_t minFiles);

    /// Waits until the window admits a file of `bytes`, and counts it.
    /// Throws StreamError::closed once cancelWaiting() has been called.
    void reserve(std::uint64_t bytes);
    /// Gives back one file and `bytes` (saturating at 0), then admits the
    /// waiting reservations that now fit, oldest first, stopping at the first that does not.
    void release(std::uint64_t bytes);
    Snapshot snapshot() const;

    /// Ends every waiting reservation, and any later one, with
    /// StreamError::closed: nothing will release the window any more.
    void cancelWaiting();
    /// Nothing will release the window any more, but nothing has failed: the
    /// receiver has stopped acknowledging. Waiting reservations end with
    /// StreamError::closed, and so does any later one that would have to
    /// wait; one that fits at once is still admitted.
    void endReleases();
    /// Lets reservations wait again after cancelWaiting() or endReleases(),
    /// for the next send.
    void reopen();

    std::size_t waitingCount() const;
    std::uint64_t maxBytes() const noexcept { return maxBytes_; }
    std::int64_t minFiles() const noexcept { return minFiles_; }

private:
    struct Waiter {
        std::uint64_t bytes;
        bool admitted = false;
        bool cancelled = false;
    };

    bool fits(std::uint64_t bytes) const;
    void admit(std::uint64_t bytes);

    const std::uint64_t maxBytes_;
    const std::int64_t minFiles_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t bytesInFlight_ = 0;
    std::int64_t filesInFlight_ = 0;
    std::deque<Waiter*> waiters_;
    bool cancelled_ = false;
    bool releasesEnded_ = false;
};

} // namespace kestrelvane
