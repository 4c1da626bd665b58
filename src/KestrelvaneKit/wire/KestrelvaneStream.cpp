#include "KestrelvaneKit/wire/KestrelvaneStream.h"

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

} // namespace kestrelvane
