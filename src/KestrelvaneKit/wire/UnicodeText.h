#pragma once

#include <string>
#include <string_view>

namespace kestrelvane::UnicodeText {

/// Whether two UTF-8 strings are canonically equivalent (the composed and the
/// decomposed spelling of a name are equal). Invalid UTF-8 compares bytewise.
bool canonicallyEqual(std::string_view a, std::string_view b);

/// The NFC form of a UTF-8 string; invalid UTF-8 comes back unchanged.
std::string nfc(std::string_view text);

} // namespace kestrelvane::UnicodeText
