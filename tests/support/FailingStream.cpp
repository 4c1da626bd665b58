#include "support/FailingStream.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace kestrelvane::testing {

FailingStream::FailingStream(std::shared_ptr<KestrelvaneStream> inner, Cut cut)
    : inner_(std::move(inner)), cue_(cut) {
}

void FailingStream::start() {
    inner_->start();
}

void FailingStream::fail() {
    cut_ = true;
    inner_->close();
    if (cue_.failure == Failure::reset) {
        throw std::system_error(ECONNRESET, std::generic_category(), "send() failed");
    }
    throw StreamError::closed();
}

void FailingStream::send(ByteView data) {
    const std::lock_guard lock(sendMutex_);
    if (cut_) {
        fail();
    }
    if (cue_.direction != Direction::sending) {
        inner_->send(data);
        sent_ += data.size();
        return;
    }
    const std::uint64_t room = cue_.afterBytes - std::min(cue_.afterBytes, sent_.load());
    if (data.size() <= room) {
        inner_->send(data);
        sent_ += data.size();
        return;
    }
    if (room > 0) {
        inner_->send(data.first(static_cast<std::size_t>(room)));
        sent_ += room;
    }
    fail();
}

Bytes FailingStream::receive(std::int64_t max) {
    if (cut_) {
        fail();
    }
    if (cue_.direction != Direction::receiving) {
        Bytes bytes = inner_->receive(max);
        received_ += bytes.size();
        return bytes;
    }
    const std::uint64_t room = cue_.afterBytes - std::min(cue_.afterBytes, received_.load());
    if (room == 0) {
        fail();
    }
    Bytes bytes = inner_->receive(
        static_cast<std::int64_t>(std::min<std::uint64_t>(room, static_cast<std::uint64_t>(max))));
    received_ += bytes.size();
    return bytes;
}

void FailingStream::close() noexcept {
    inner_->close();
}

} // namespace kestrelvane::testing
