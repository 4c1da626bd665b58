#include "KestrelvaneKit/session/CountingStream.h"

#include <algorithm>

namespace kestrelvane {

CountingStream::CountingStream(std::shared_ptr<KestrelvaneStream> inner, OnSent onSent)
    : ForwardingStream(std::move(inner)), onSent_(std::move(onSent)) {
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

} // namespace kestrelvane
