#pragma once

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace kestrelvane::testing {

/// Decorates any stream and drops the connection on cue: once `cut.afterBytes`
/// bytes have passed in the cue's direction, the wrapped stream is closed in
/// both directions, as a pulled cable would, and the call that reached the
/// cue fails. A send that crosses the cue hands its leading bytes on first, so
/// a cut can fall inside a frame. Before the cue every call passes straight
/// through; after it every call fails.
class FailingStream final : public KestrelvaneStream {
public:
    enum class Direction { sending, receiving };
    /// How the failing call ends: the stream's end, or a transport error.
    enum class Failure { closed, reset };

    struct Cut {
        Direction direction = Direction::sending;
        std::uint64_t afterBytes = 0;
        Failure failure = Failure::closed;
    };

    FailingStream(std::shared_ptr<KestrelvaneStream> inner, Cut cut);

    void start() override { inner_->start(); }
    void send(ByteView data) override;
    Bytes receive(std::int64_t max) override;
    void close() noexcept override { inner_->close(); }

    /// Whether the cue has been reached.
    bool hasCut() const noexcept { return cut_.load(); }

private:
    [[noreturn]] void fail();

    const std::shared_ptr<KestrelvaneStream> inner_;
    const Cut cue_;
    std::atomic<bool> cut_{false};
    std::atomic<std::uint64_t> sent_{0};
    std::atomic<std::uint64_t> received_{0};
    std::mutex sendMutex_; // a send crossing the cue is not overtaken by another
};

} // namespace kestrelvane::testing
