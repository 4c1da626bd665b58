#include "support/MemoryStream.h"

#include "KestrelvaneKit/wire/ReceiveBuffer.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace kestrelvane::testing {

/// Each array is indexed by the end that reads.
struct MemoryLink {
    std::mutex mutex;
    std::condition_variable changed;
    ReceiveBuffer bytes[2];
    bool ended[2] = {false, false};  ///< nothing more comes: the sender finished, or it closed
    bool closed[2] = {false, false}; ///< the reading end itself closed
};

MemoryStream::MemoryStream(std::shared_ptr<MemoryLink> link, int side)
    : link_(std::move(link)), side_(side) {
}

MemoryStream::~MemoryStream() {
    close();
}

// Waiters are woken while the lock is held: they run once it is let go.
void MemoryStream::send(ByteView data) {
    const std::lock_guard lock(link_->mutex);
    if (link_->ended[1 - side_]) {
        throw StreamError::closed();
    }
    link_->bytes[1 - side_].append(data);
    link_->changed.notify_all();
}

Bytes MemoryStream::receive(std::int64_t max) {
    const std::size_t limit = max > 0 ? static_cast<std::size_t>(max) : 0;
    std::unique_lock lock(link_->mutex);
    auto& bytes = link_->bytes[side_];
    link_->changed.wait(lock, [&] { return !bytes.empty() || link_->ended[side_]; });
    if (link_->closed[side_] || bytes.empty()) {
        throw StreamError::closed();
    }
    return bytes.take(std::min(limit, bytes.size()));
}

void MemoryStream::close() noexcept {
    const std::lock_guard lock(link_->mutex);
    link_->ended[side_] = link_->closed[side_] = link_->ended[1 - side_] = true;
    link_->changed.notify_all();
}

void MemoryStream::finishSending() noexcept {
    const std::lock_guard lock(link_->mutex);
    link_->ended[1 - side_] = true;
    link_->changed.notify_all();
}

std::size_t MemoryStream::pendingBytes() const {
    const std::lock_guard lock(link_->mutex);
    return link_->bytes[side_].size();
}

std::pair<std::shared_ptr<MemoryStream>, std::shared_ptr<MemoryStream>> makeMemoryStreamPair() {
    auto link = std::make_shared<MemoryLink>();
    return {std::make_shared<MemoryStream>(link, 0), std::make_shared<MemoryStream>(link, 1)};
}

} // namespace kestrelvane::testing
