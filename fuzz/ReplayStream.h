#pragma once

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace kestrelvane {

/// A peer's bytes, handed out in slices of at most `slice`, then the end of
/// the stream. What is sent to the peer is dropped.
class ReplayStream final : public KestrelvaneStream {
public:
    explicit ReplayStream(ByteView input,
                          std::size_t slice = std::numeric_limits<std::size_t>::max())
        : input_(input), slice_(slice) {}

    void start() override {}
    void send(ByteView) override {}
    Bytes receive(std::int64_t max) override {
        if (offset_ >= input_.size()) {
            throw StreamError::closed();
        }
        const std::size_t count =
            std::min({slice_, input_.size() - offset_, static_cast<std::size_t>(max)});
        const ByteView piece = input_.subspan(offset_, count);
        offset_ += count;
        return {piece.begin(), piece.end()};
    }
    void close() noexcept override {}

private:
    ByteView input_;
    std::size_t slice_;
    std::size_t offset_ = 0;
};

} // namespace kestrelvane
