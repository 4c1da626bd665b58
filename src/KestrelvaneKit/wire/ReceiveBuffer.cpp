#include "KestrelvaneKit/wire/ReceiveBuffer.h"

#include <cassert>
#include <iterator>

namespace kestrelvane {

void ReceiveBuffer::append(ByteView bytes) {
    compactIfWorthIt();
    storage_.insert(storage_.end(), bytes.begin(), bytes.end());
}

void ReceiveBuffer::append(Bytes&& bytes) {
    if (empty()) {
        storage_ = std::move(bytes);
        head_ = 0;
        return;
    }
    append(ByteView(bytes));
}

void ReceiveBuffer::consume(std::size_t count) {
    assert(count <= size());
    head_ += count;
    if (head_ == storage_.size()) {
        storage_.clear();
        head_ = 0;
    }
}

Bytes ReceiveBuffer::take(std::size_t count) {
    assert(count <= size());
    const auto first = storage_.begin() + static_cast<std::ptrdiff_t>(head_);
    Bytes out(first, first + static_cast<std::ptrdiff_t>(count));
    consume(count);
    return out;
}

void ReceiveBuffer::compactIfWorthIt() {
    // Moving is worth it once the dead prefix is at least as large as what is
    // still live: the move then costs no more than the bytes already consumed.
    if (head_ != 0 && head_ >= size()) {
        storage_.erase(storage_.begin(), storage_.begin() + static_cast<std::ptrdiff_t>(head_));
        head_ = 0;
    }
}

} // namespace kestrelvane
