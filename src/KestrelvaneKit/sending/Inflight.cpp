#include "KestrelvaneKit/sending/Inflight.h"

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <algorithm>

namespace kestrelvane {

Inflight::Inflight(std::int64_t maxBytes, std::int64_t minFiles)
    : maxBytes_(static_cast<std::uint64_t>(std::max<std::int64_t>(maxBytes, 0))),
      minFiles_(std::max<std::int64_t>(minFiles, 1)) {
}

bool Inflight::fits(std::uint64_t bytes) const {
    // The file count first: below minFiles any size is admitted. Written as a
    // subtraction so that a huge request cannot wrap the sum around.
    return filesInFlight_ < minFiles_ ||
           (bytesInFlight_ <= maxBytes_ && bytes <= maxBytes_ - bytesInFlight_);
}

void Inflight::admit(std::uint64_t bytes) {
    bytesInFlight_ = bytes > UINT64_MAX - bytesInFlight_ ? UINT64_MAX : bytesInFlight_ + bytes;
    filesInFlight_ += 1;
}

void Inflight::reserve(std::uint64_t bytes) {
    std::unique_lock lock(mutex_);
    if (cancelled_) {
        throw StreamError::closed();
    }
    if (waiters_.empty() && fits(bytes)) {
        admit(bytes);
        return;
    }
    if (releasesEnded_) {
        throw StreamError::closed(); // no release will ever make room
    }
    Waiter waiter{bytes};
    waiters_.push_back(&waiter);
    changed_.wait(lock, [&] { return waiter.admitted || waiter.cancelled; });
    if (waiter.cancelled) {
        throw StreamError::closed();
    }
    // Counted by the release that admitted it.
}

void Inflight::release(std::uint64_t bytes) {
    {
        const std::lock_guard lock(mutex_);
        bytesInFlight_ = bytes > bytesInFlight_ ? 0 : bytesInFlight_ - bytes;
        filesInFlight_ = std::max<std::int64_t>(filesInFlight_ - 1, 0);
        while (!waiters_.empty() && fits(waiters_.front()->bytes)) {
            Waiter* next = waiters_.front();
            waiters_.pop_front();
            admit(next->bytes);
            next->admitted = true;
        }
    }
    changed_.notify_all();
}

Inflight::Snapshot Inflight::snapshot() const {
    const std::lock_guard lock(mutex_);
    return Snapshot{bytesInFlight_, filesInFlight_};
}

void Inflight::cancelWaiting() {
    {
        const std::lock_guard lock(mutex_);
        cancelled_ = true;
    }
    endReleases();
}

void Inflight::endReleases() {
    {
        const std::lock_guard lock(mutex_);
        releasesEnded_ = true;
        for (Waiter* waiter : waiters_) {
            waiter->cancelled = true;
        }
        waiters_.clear();
    }
    changed_.notify_all();
}

void Inflight::reopen() {
    const std::lock_guard lock(mutex_);
    cancelled_ = false;
    releasesEnded_ = false;
}

std::size_t Inflight::waitingCount() const {
    const std::lock_guard lock(mutex_);
    return waiters_.size();
}

} // namespace kestrelvane
