#include "support/FailingStream.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace kestrelvane::testing {

FailingStream::FailingStream(std::shared_ptr<KestrelvaneStream> inner, Cut cut)
    : inner_(std::move(inner)), cue_(cut) {
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
    const std::uint64_t room = cue_.direction == Direction::sending
                                   ? cue_.afterBytes - std::min(cue_.afterBytes, sent_.load())
                                   : data.size();
    const auto passing = static_cast<std::size_t>(std::min<std::uint64_t>(room, data.size()));
    if (passing > 0 || data.empty()) {
        inner_->send(data.first(passing));
        sent_ += passing;
    }
    if (passing < data.size()) {
        fail();
    }
}

Bytes FailingStream::receive(std::int64_t max) {
    const auto asked = static_cast<std::uint64_t>(max);
    const std::uint64_t room = cue_.direction == Direction::receiving
                                   ? cue_.afterBytes - std::min(cue_.afterBytes, received_.load())
                                   : asked;
    if (cut_ || (room == 0 && cue_.direction == Direction::receiving)) {
        fail();
    }
    Bytes bytes = inner_->receive(static_cast<std::int64_t>(std::min(room, asked)));
    received_ += bytes.size();
    return bytes;
}

} // namespace kestrelvane::testing
