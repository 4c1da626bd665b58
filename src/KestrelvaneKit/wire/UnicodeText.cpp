#include "KestrelvaneKit/wire/UnicodeText.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <optional>

namespace kestrelvane::UnicodeText {
namespace {

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool isValidUtf8(std::string_view text) {
    // ICU substitutes U+FFFD for ill-formed input; a round trip detects it.
    const auto unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    std::string back;
    unicode.toUTF8String(back);
    return back == text;
}

std::optional<std::string> normalize(std::string_view text) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfcNormalizer = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status) || !isValidUtf8(text)) {
        return std::nullopt;
    }
    const auto unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    const icu::UnicodeString normalized = nfcNormalizer->normalize(unicode, status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    std::string out;
    normalized.toUTF8String(out);
    return out;
}

} // namespace

bool canonicallyEqual(std::string_view a, std::string_view b) {
    if (a == b) {
        return true;
    }
    if (isAscii(a) && isAscii(b)) {
        return false;
    }
    const auto na = normalize(a);
    const auto nb = normalize(b);
    if (!na || !nb) {
        return false;
    }
    return *na == *nb;
}

std::string nfc(std::string_view text) {
    if (isAscii(text)) {
        return std::string(text);
    }
    return normalize(text).value_or(std::string(text));
}

std::string trimmed(std::string_view text) {
    const auto isAsciiSpace = [](char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
    };
    if (!isValidUtf8(text)) {
        const auto first = std::find_if_not(text.begin(), text.end(), isAsciiSpace);
        const auto last = std::find_if_not(text.rbegin(), text.rend(), isAsciiSpace).base();
        return first < last ? std::string(first, last) : std::string();
    }
    const auto unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    int32_t begin = 0;
    int32_t end = unicode.length();
    while (begin < end && u_isUWhiteSpace(unicode.char32At(begin))) {
        begin = unicode.moveIndex32(begin, 1);
    }
    while (end > begin) {
        const int32_t previous = unicode.moveIndex32(end, -1);
        if (!u_isUWhiteSpace(unicode.char32At(previous))) {
            break;
        }
        end = previous;
    }
    std::string out;
    unicode.tempSubStringBetween(begin, end).toUTF8String(out);
    return out;
}

} // namespace kestrelvane::UnicodeText
