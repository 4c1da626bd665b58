#include "KestrelvaneKit/session/CountingStream.h"

#include <algorithm>

namespace kestrelvane {

CountingStream::CountingStream(std::shared_ptr<KestrelvaneStream> inner, OnSent onSent)
    : inner_(std::move(inner)), onSent_(std::move(onSent)) {
}

void CountingStream::start() {
    inner_->start();
}

void CountingStream::send(ByteView data) {
    const std::lock_guard lock(sending_);
    while (!data.empty()) {
        const ByteView piece = data.first(std::min(data.size(), pieceBytes));
        inner_->send(piece);
        onSent_(piece.size());
        data = data.subspan(piece.size());
    }
}

Bytes CountingStream::receive(std::int64_t max) {
    return inner_->receive(max);
}

std::size_t CountingStream::receiveInto(MutableByteView into) {
    return inner_->receiveInto(into);
}

void CountingStream::close() noexcept {
    inner_->close();
}

} // namespace kestrelvane
