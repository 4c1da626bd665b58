#pragma once

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

} // namespace kestrelvane::UnicodeText
