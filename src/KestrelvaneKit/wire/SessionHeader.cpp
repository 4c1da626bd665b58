#include "KestrelvaneKit/wire/SessionHeader.h"

#include "KestrelvaneKit/wire/UnicodeText.h"

namespace kestrelvane {

std::string_view wireString(SessionHeader::Direction direction) noexcept {
    return direction == SessionHeader::Direction::macToPhone ? "macToPhone" : "phoneToMac";
}

bool operator==(const SessionHeader& a, const SessionHeader& b) {
    return a.schemaVersion == b.schemaVersion && a.direction == b.direction &&
           a.albumName.has_value() == b.albumName.has_value() &&
           (!a.albumName || UnicodeText::canonicallyEqual(*a.albumName, *b.albumName)) &&
           a.resume == b.resume && a.device == b.device;
}

} // namespace kestrelvane
