#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <algorithm>

namespace kestrelvane {

StreamError::StreamError(Kind kind, std::string reason, const std::string& what)
    : std::runtime_error(what), kind_(kind), reason_(std::move(reason)) {
}

StreamError StreamError::refused(std::string reason) {
    const std::string what = "stream refused: " + reason;
    return StreamError(Kind::refused, std::move(reason), what);
}

StreamError StreamError::closed() {
    return StreamError(Kind::closed, {}, "stream closed");
}

std::size_t KestrelvaneStream::receiveInto(MutableByteView into) {
    if (into.empty()) {
        throw std::invalid_argument("receiveInto needs room for at least one byte");
    }
    const Bytes bytes = receive(static_cast<std::int64_t>(into.size()));
    if (bytes.size() > into.size()) {
        throw std::length_error("receive returned more bytes than it was asked for");
    }
    std::copy(bytes.begin(), bytes.end(), into.begin());
    return bytes.size();
}

Bytes KestrelvaneStream::receiveThroughInto(std::int64_t max) {
    if (max < 1) {
        throw std::invalid_argument("receive() needs a maximum of at least 1 byte");
    }
    Bytes buffer(static_cast<std::size_t>(std::min<std::int64_t>(max, 1'048'576)));
    buffer.resize(receiveInto(buffer));
    return buffer;
}

} // namespace kestrelvane
