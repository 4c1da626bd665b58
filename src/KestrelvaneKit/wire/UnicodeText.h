#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrelvane::UnicodeText {

/// Whether two UTF-8 strings are canonically equivalent (the composed and the
/// decomposed spelling of a name are equal). Invalid UTF-8 compares bytewise.
bool canonicallyEqual(std::string_view a, std::string_view b);

/// The NFC form of a UTF-8 string; invalid UTF-8 comes back unchanged.
std::string nfc(std::string_view text);

/// `text` without the white space and line breaks (Unicode White_Space) at
/// either end; invalid UTF-8 is trimmed of ASCII white space only.
std::string trimmed(std::string_view text);

/// Whether `text` may be shown to people as a label a peer chose: valid
/// UTF-8, 1 to `maxCharacters` characters, none of them a control or format
/// character or a line or paragraph separator (which could redraw or hide
/// what is around it on a screen).
bool isPlainLabel(std::string_view text, std::size_t maxCharacters);

/// `text` with its control characters written as \xNN (and, when it is not
/// valid UTF-8, every byte outside printable ASCII): fit for a terminal line
/// whatever a peer put in it.
std::string printable(std::string_view text);

} // namespace kestrelvane::UnicodeText
