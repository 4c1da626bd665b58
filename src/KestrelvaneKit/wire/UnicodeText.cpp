#include "KestrelvaneKit/wire/UnicodeText.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
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

bool isPlainLabel(std::string_view text, std::size_t maxCharacters) {
    if (text.empty() || !isValidUtf8(text)) {
        return false;
    }
    const auto unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    if (static_cast<std::size_t>(unicode.countChar32()) > maxCharacters) {
        return false;
    }
    for (int32_t at = 0; at < unicode.length(); at = unicode.moveIndex32(at, 1)) {
        switch (u_charType(unicode.char32At(at))) {
        case U_CONTROL_CHAR:
        case U_FORMAT_CHAR:
        case U_LINE_SEPARATOR:
        case U_PARAGRAPH_SEPARATOR:
            return false;
        default:
            break;
        }
    }
    return true;
}

std::string printable(std::string_view text) {
    const auto escaped = [](std::uint32_t value) {
        char code[16];
        std::snprintf(code, sizeof code, value < 0x100 ? "\\x%02x" : "\\u%04x", value);
        return std::string(code);
    };
    std::string out;
    if (!isValidUtf8(text)) {
        for (const char c : text) {
            const auto byte = static_cast<unsigned char>(c);
            out += byte < 0x20 || byte >= 0x7f ? escaped(byte) : std::string(1, c);
        }
        return out;
    }
    const auto unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    for (int32_t at = 0; at < unicode.length(); at = unicode.moveIndex32(at, 1)) {
        const UChar32 character = unicode.char32At(at);
        if (u_charType(character) == U_CONTROL_CHAR) {
            out += escaped(static_cast<std::uint32_t>(character));
        } else {
            icu::UnicodeString(character).toUTF8String(out);
        }
    }
    return out;
}

} // namespace kestrelvane::UnicodeText
