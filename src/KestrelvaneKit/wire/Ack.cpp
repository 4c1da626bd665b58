#include "KestrelvaneKit/wire/Ack.h"

#include "KestrelvaneKit/wire/UnicodeText.h"

namespace kestrelvane {

std::string_view wireString(Ack::Status status) noexcept {
    return status == Ack::Status::ok ? "ok" : "error";
}

bool operator==(const Ack& a, const Ack& b) {
    return a.status == b.status && UnicodeText::canonicallyEqual(a.name, b.name) &&
           a.message.has_value() == b.message.has_value() &&
           (!a.message || UnicodeText::canonicallyEqual(*a.message, *b.message));
}

} // namespace kestrelvane
