#pragma once

#include "KestrelvaneKit/wire/Bytes.h"

#include <cstddef>

namespace kestrelvane {

/// Bytes received and not yet handed out. Consuming from the front only moves a
/// read offset; the live bytes are moved down once the dead prefix outgrows
/// them, so each byte is moved at most a constant number of times.
class ReceiveBuffer {
public:
    ReceiveBuffer() = default;
    explicit ReceiveBuffer(Bytes initial) : storage_(std::move(initial)) {}

    std::size_t size() const noexcept { return storage_.size() - head_; }
    bool empty() const noexcept { return size() == 0; }
    ByteView view() const noexcept { return {storage_.data() + head_, size()}; }

    void append(ByteView bytes);
    /// Takes over the storage of `bytes` when nothing is buffered (no copy).
    void append(Bytes&& bytes);

    /// Drops the first `count` bytes; `count` must not exceed size().
    void consume(std::size_t count);
    /// Copies out and drops the first `count` bytes; `count` must not exceed size().
    Bytes take(std::size_t count);

private:
    void compactIfWorthIt();

    Bytes storage_;
    std::size_t head_ = 0;
};

} // namespace kestrelvane
