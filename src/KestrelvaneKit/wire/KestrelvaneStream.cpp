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

} // namespace kestrelvane
