#pragma once

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace kestrelvane {

/// A stream that reports the bytes it has written as they go: a large send is
/// passed on in pieces, each reported once the transport has taken it, so
/// that progress follows a file while it is on its way.
class CountingStream final : public ForwardingStream {
public:
    using OnSent = std::function<void(std::uint64_t bytes)>;

    /// Sends are passed on in pieces of at most this many bytes.
    static constexpr std::size_t pieceBytes = 1u << 20;

    /// `onSent` is called on the sending thread.
    CountingStream(std::shared_ptr<KestrelvaneStream> inner, OnSent onSent);

    void send(ByteView data) override;

private:
    const OnSent onSent_;
    std::mutex sending_; // the pieces of one send are never interleaved with another's
};

} // namespace kestrelvane
