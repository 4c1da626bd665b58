#include "KestrelvaneKit/wire/FileHeader.h"

#include "KestrelvaneKit/wire/UnicodeText.h"

namespace kestrelvane {

bool operator==(const FileHeader& a, const FileHeader& b) {
    return a.mediaType == b.mediaType && a.byteCount == b.byteCount &&
           a.creationDate == b.creationDate && UnicodeText::canonicallyEqual(a.name, b.name) &&
           UnicodeText::canonicallyEqual(a.sha256, b.sha256) && a.offer == b.offer &&
           a.from == b.from;
}

} // namespace kestrelvane
