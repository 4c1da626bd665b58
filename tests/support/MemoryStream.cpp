#include "support/MemoryStream.h"

#include "KestrelvaneKit/wire/ReceiveBuffer.h"

#include <algorithm>

namespace kestrelvane::testing {

class MemoryPipe {
public:
    void write(ByteView data) {
        {
            const std::lock_guard lock(mutex_);
            if (closed_) {
                throw StreamError::closed();
            }
            bytes_.append(data);
        }
        changed_.notify_all();
    }

    /// Waits for bytes or the end; returns up to `max` of them.
    Bytes read(std::size_t max) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return !bytes_.empty() || closed_ || readerClosed_; });
        if (readerClosed_ || bytes_.empty()) {
            throw StreamError::closed();
        }
        return bytes_.take(std::min(max, bytes_.size()));
    }

    std::size_t size() {
        const std::lock_guard lock(mutex_);
        return bytes_.size();
    }

    /// The writing end is gone: readers drain what is left, then see the end.
    void closeWriter() {
        {
            const std::lock_guard lock(mutex_);
            closed_ = true;
        }
        changed_.notify_all();
    }

    /// The reading end is gone: its waiting reader wakes; writers fail.
    void closeReader() {
        {
            const std::lock_guard lock(mutex_);
            closed_ = true;
            readerClosed_ = true;
        }
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    ReceiveBuffer bytes_;
    bool closed_ = false;
    bool readerClosed_ = false;
};

MemoryStream::MemoryStream(std::shared_ptr<MemoryPipe> inbound,
                           std::shared_ptr<MemoryPipe> outbound, ReceiveMode mode)
    : inbound_(std::move(inbound)), outbound_(std::move(outbound)), mode_(mode) {
}

MemoryStream::~MemoryStream() {
    close();
}

void MemoryStream::start() {
}

void MemoryStream::send(ByteView data) {
    ++sends_;
    outbound_->write(data);
}

Bytes MemoryStream::receive(std::int64_t max) {
    const std::size_t call = receives_++;
    if (mode_ == ReceiveMode::emptyEveryOther && call % 2 == 0) {
        return {};
    }
    std::size_t limit = max > 0 ? static_cast<std::size_t>(max) : 0;
    if (mode_ == ReceiveMode::oneByteAtATime) {
        limit = std::min<std::size_t>(limit, 1);
    }
    return inbound_->read(limit);
}

void MemoryStream::close() noexcept {
    inbound_->closeReader();
    outbound_->closeWriter();
}

std::size_t MemoryStream::pendingBytes() const {
    return inbound_->size();
}

void MemoryStream::finishSending() noexcept {
    outbound_->closeWriter();
}

std::pair<std::shared_ptr<MemoryStream>, std::shared_ptr<MemoryStream>>
makeMemoryStreamPair(ReceiveMode firstMode, ReceiveMode secondMode) {
    auto firstToSecond = std::make_shared<MemoryPipe>();
    auto secondToFirst = std::make_shared<MemoryPipe>();
    return {std::make_shared<MemoryStream>(secondToFirst, firstToSecond, firstMode),
            std::make_shared<MemoryStream>(firstToSecond, secondToFirst, secondMode)};
}

} // namespace kestrelvane::testing
